// System messages to fault reports.
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QStringList>
#include <QXmlStreamReader>

#include <optional>

namespace {

/// Name of the element that stands first in "msgdata": the message identifier. Empty when there is none.
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

/// Text of a leaf of the message; false when it has no such leaf.
bool messageLeaf(const Notification &n, QLatin1String leaf, QString &text)
{
    return TalInterface::xpathGetTextNode(text, n.rPath + leaf, n.sPath, n.rPath, n.data);
}

/// Value of a predicate of a path that was split at its apostrophes: what follows the part that names `key`. The two
/// predicates may stand in either order; `first` is the part that is looked at first.
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

// The node is gone: only its path still says which message it was.
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
