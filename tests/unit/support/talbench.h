// A data-service client on the bench: notifications in, records and log lines out.
#pragma once

#include "support/messagelog.h"
#include "support/testprogram.h"

#include "device/tablerecords.h"
#include "tal/talhandler.h"

inline constexpr const char *stationCompact = "Orvane Brisel Compact - IP-QRM-B";
inline constexpr const char *stationExtended = "Orvane Brisel Extended - IP-QRM-B";
inline constexpr const char *ordinaryDescription = "Orvane Brisel Extended";

/// The subscribed path behind the path of a changed leaf: the same without its predicates.
inline QString withoutPredicates(QString path)
{
    static const QRegularExpression predicates(QStringLiteral("\\[[^\\]]*\\]"));
    return path.remove(predicates);
}

inline QString leafXml(const QString &path, const QString &text)
{
    const QString name = withoutPredicates(path).section(QLatin1Char('/'), -1);
    return QStringLiteral("<%1>%2</%1>").arg(name, text.toHtmlEscaped());
}

/// No test finds a system bus, so that all machines give the same result.
inline const bool noSystemBus = qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system_bus_socket");

class TalBench {
public:
    explicit TalBench(uint model, const char *description = ordinaryDescription) : handler(nullptr, model, description)
    {}

    /// Any notification; the subscribed path defaults to the path without predicates.
    void notify(const char *ref, const char *op, const QString &rPath, const QString &data, QString sPath = {})
    {
        if (sPath.isEmpty())
            sPath = withoutPredicates(rPath);
        handler.talHandlerNotifySlot(qs(ref), qs(op), rPath, sPath, data);
    }

    void leaf(const char *ref, const char *op, const QString &path, const QString &text)
    {
        notify(ref, op, path, leafXml(path, text));
    }

    TableRecords &records() { return handler.tableRecords(); }

    MessageLog log; ///< first: it keeps the lines of the construction
    TalHandler handler;
};
