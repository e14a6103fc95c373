// The data-service client on the bench: a scripted data service, notifications and log lines.
#pragma once

#include <xrcommon/TalInterface.h>

#include "support/messagelog.h"
#include "support/talpeer.h"
#include "support/testprogram.h"

#include <memory>

inline void request(const QString &xml)
{
    TalInterface::requestData(xml, TALTARGET_DEFAULT);
}

inline QByteArray notify(const QByteArray &data)
{
    return "<notify><ref>r</ref><op>replace</op><rpath>/a/b</rpath><spath>/a</spath><data>" + data + "</data></notify>";
}

inline const QByteArray nul(1, '\0');

struct TalInterfaceBench {
    MessageLog log;
    TalPeer peer;
    std::unique_ptr<TalInterface> tal = std::make_unique<TalInterface>(nullptr);
    QSignalSpy connected{tal.get(), &TalInterface::talLocalUnixSocketConnectedSignal};
    QSignalSpy notified{tal.get(), &TalInterface::talNotifySignal};

    TalInterfaceBench()
    {
        if (!QTest::qWaitFor([this] { return peer.connections() == 1 && connected.count() == 1; }))
            qFatal("no connection");
        log.takeLines();
    }

    QString sent()
    {
        static_cast<void>(QTest::qWaitFor([this] { return !peer.messages().isEmpty(); }));
        return QString::fromUtf8(peer.takeMessages().join('|'));
    }

    QStringList dataTexts() const
    {
        QStringList texts;
        for (const QVariantList &notification : notified)
            texts << notification.at(4).toString();
        return texts;
    }
};
