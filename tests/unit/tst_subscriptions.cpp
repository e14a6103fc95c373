// What the client asks the data service for: the subscriptions of each model, in order, and the version that it can
// tell.
#include "support/catalogue.h"
#include "support/messagelog.h"
#include "support/talpeer.h"
#include "support/testprogram.h"

#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QCoreApplication>
#include <QSignalSpy>
#include <QVector>
#include <QtTest>

#include <algorithm>
#include <optional>

namespace {

using catalogue::Row;

/// A subscription as it goes over the socket.
QByteArray requestOf(const Row &subscription)
{
    return "<request><ref>" + subscription.latin1("reference") + "</ref><subscribe><path>" +
           subscription.latin1("path") +
           "</path><operation>change</operation><single_level>true</single_level><target>0</target></subscribe></"
           "request>";
}

QByteArrayList requestsOf(uint model, const char *block)
{
    QByteArrayList requests;
    for (const Row &subscription : catalogue::rows("subscriptions", "block", QString::fromLatin1(block)))
        if (subscription.has(model))
            requests << requestOf(subscription);
    return requests;
}

/// The debug lines of the data block: the same on every model.
QStringList requestNames()
{
    QStringList names{QStringLiteral("slotStartSubscribe")};
    for (const Row &subscription : catalogue::rows("subscriptions"))
        if (!subscription.text("request").isEmpty())
            names << subscription.text("request");
    return names;
}

const QByteArray lastWord = "<request><ref>last_word</ref></request>";

} // namespace

class TestSubscriptions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system_bus_socket");
        m_log.emplace();
        m_peer.emplace();
    }

    void cleanup()
    {
        m_handler.reset();
        m_interface.reset();
        m_peer.reset();
        m_log.reset();
    }

    void subscriptionsOf_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<int>("count"); // of the data block; counted by hand
        const QVector<QPair<uint, int>> counts{{6211, 4},  {6214, 8}, {6259, 8}, {6410, 10}, {6420, 18},
                                               {6425, 11}, {6601, 5}, {6602, 5}, {6720, 15}, {6764, 15},
                                               {6891, 4},  {6913, 2}, {6914, 2}, {0, 1},     {9999, 1}};
        for (const auto &[model, count] : counts)
            QTest::addRow("%u", model) << model << count;
    }

    void subscriptionsOf()
    {
        QFETCH(uint, model);
        QFETCH(int, count);

        connectToPeer(model);
        m_handler->slotTalReady();
        QCOMPARE(sent(), requestsOf(model, "settings"));
        QCOMPARE(m_log->takeLines(), QStringList());
        m_handler->slotStartSubscribe();
        QCOMPARE(m_log->lines(), requestNames());
        const QByteArrayList data = sent();
        QCOMPARE(data, requestsOf(model, "data"));
        QCOMPARE(data.size(), count);
    }

    void eachInvocationSubscribesAgain()
    {
        connectToPeer(6420);
        m_handler->slotTalReady();
        m_handler->slotStartSubscribe();
        m_handler->slotStartSubscribe();
        m_handler->slotTalReady();
        const QByteArrayList settings = requestsOf(6420, "settings");
        const QByteArrayList data = requestsOf(6420, "data");
        QCOMPARE(sent(), settings + data + data + settings);
        QCOMPARE(m_log->lines(), requestNames() + requestNames());
    }

    void requestsOfAnUnconnectedServiceAreNamedAllTheSame()
    {
        m_handler.emplace(nullptr, 6420, ""); // no TalInterface: the library drops each request with a line of its own
        m_handler->slotTalReady();
        m_handler->slotStartSubscribe();
        QStringList lines = m_log->takeLines();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const QString &line) { return line.contains(QLatin1String(" dropped: ")); }),
                    lines.end());
        QCOMPARE(lines, requestNames());
        QCOMPARE(m_peer->messages(), QByteArrayList());
    }

    void voltageOnItsWayFromTheSocketToTheRecord()
    {
        connectToPeer(6420);
        QObject::connect(
            &*m_interface,
            SIGNAL(talNotifySignal(const QString, const QString, const QString, const QString, const QString)),
            &*m_handler,
            SLOT(talHandlerNotifySlot(const QString, const QString, const QString, const QString, const QString)));
        const auto &millivolts = m_handler->tableRecords().voltage.values;
        m_peer->sendNotify(QStringLiteral("kvsnmp_voltage"), QStringLiteral("create"),
                           QStringLiteral("/state/power_lines/power_line[kid='24v0FB']/voltage"),
                           QStringLiteral("/state/power_lines/power_line/voltage"),
                           QStringLiteral("<voltage>23.9</voltage>"));
        QTRY_COMPARE(millivolts[8], 23900U);
        m_peer->sendNotify(QStringLiteral("kvsnmp_voltage"), QStringLiteral("delete"),
                           QStringLiteral("/state/power_lines/power_line[kid='24v0FB']/voltage"),
                           QStringLiteral("/state/power_lines/power_line/voltage"), QString());
        QTRY_COMPARE(millivolts[8], 0U);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void publishSoftwareVersionEditsAndAsks()
    {
        QCoreApplication::setApplicationName(QStringLiteral("some-name"));
        QCoreApplication::setApplicationVersion(QStringLiteral("4.5.6"));
        connectToPeer(6913);
        m_handler->publishSoftwareVersion();
        QCOMPARE(sent(), QByteArrayList(
                             {"<request><ref>KvSnmpSWVersion</ref><edit><path>/state/version</path>"
                              "<operation>patch</operation><data><version><software><kid>some-name</kid>"
                              "<version>4.5.6</version></software></version></data></edit></request>",
                              "<request><ref>debug_info-kvsnmp</ref><rpc><session_info><debug_info>kvsnmp</debug_info>"
                              "</session_info></rpc></request>"}));
    }

private:
    void connectToPeer(uint model)
    {
        m_interface.emplace(nullptr);
        QSignalSpy connected(&*m_interface, SIGNAL(talLocalUnixSocketConnectedSignal()));
        QTRY_COMPARE(connected.size(), 1);
        m_handler.emplace(nullptr, model, "Orvane Brisel Extended - IP-QRM-B");
        m_log->takeLines();
    }

    /// Everything that was sent since the last call.
    QByteArrayList sent()
    {
        TalInterface::requestData(QString::fromLatin1(lastWord), TALTARGET_DEFAULT);
        QByteArrayList all;
        [&] { QTRY_COMPARE(m_peer->messages().value(m_peer->messages().size() - 1), lastWord); }();
        all = m_peer->takeMessages();
        all.removeLast();
        return all;
    }

    std::optional<MessageLog> m_log;
    std::optional<TalPeer> m_peer;
    std::optional<TalInterface> m_interface;
    std::optional<TalHandler> m_handler;
};

const TestEntry entry("tst_subscriptions", runTest<TestSubscriptions>);
#include "tst_subscriptions.moc"
