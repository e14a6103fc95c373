// System messages to fault reports.
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QStringList>
#include <QXmlStreamReader>

#include <optional>

namespace {

/// Name of the first element in "msgdata": the message identifier. Empty without one.
QString messageIdentifier(const QString &xml)
{
    QString identifier;
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement && reader.name() == QLatin1String("msgdata") &&
            reader.readNext() == QXmlStreamReader::StartElement)
            identifier = reader.name().toString();
    }
    return identifier;
}

/// Text of a leaf of the message; false without such a leaf.
bool messageLeaf(const Notification &n, QLatin1String leaf, QString &text)
{
    return TalInterface::xpathGetTextNode(text, n.rPath + leaf, n.sPath, n.rPath, n.data);
}

/// Value of a predicate of a path split at its apostrophes: the part after the one that names `key`. The two predicates
/// may be in either order; `first` is the part to check first.
std::optional<QString> predicateValue(const QStringList &parts, QLatin1String key, int first, int second)
{
    for (const int part : {first, second}) {
        if (!parts.at(part).contains(key))
            continue;
        if (part + 1 < parts.size())
            return parts.at(part + 1);
        break;
    }
    return std::nullopt;
}

} // namespace

void TalHandler::parseSysMessages(const Notification &n)
{
    switch (operationOf(n)) {
    case Operation::Change:
        reportActiveFault(n);
        break;
    case Operation::Delete:
        reportEndedFault(n);
        break;
    case Operation::Unexpected:
        break;
    }
}

void TalHandler::reportActiveFault(const Notification &n)
{
    QString reporter;
    QString repRef;
    if (!messageLeaf(n, QLatin1String("/reporter"), reporter) || !messageLeaf(n, QLatin1String("/rep_ref"), repRef))
        return;
    QString infoText;
    QString timeStamp;
    QString level;
    messageLeaf(n, QLatin1String("/text"), infoText);
    messageLeaf(n, QLatin1String("/timestamp"), timeStamp);
    messageLeaf(n, QLatin1String("/level"), level);
    Q_EMIT signalReportFault(reporter, repRef, messageIdentifier(n.data), infoText, timeStamp, level, true);
}

// The node is deleted: only its path identifies the message.
void TalHandler::reportEndedFault(const Notification &n)
{
    const QStringList parts = n.rPath.split(QLatin1Char('\''));
    if (parts.size() < 3)
        return;
    const auto reporter = predicateValue(parts, QLatin1String("reporter"), 0, 2);
    const auto repRef = predicateValue(parts, QLatin1String("rep_ref"), 2, 0);
    if (reporter && repRef)
        Q_EMIT signalReportFault(*reporter, *repRef, {}, {}, {}, {}, false);
}
