// System messages and their deletion: the path of its deletion must end a message that was reported active, otherwise
// its fault would stay forever. The input is three lines (reporter, rep_ref, message identifier), then a line with the
// path of a deletion; its first byte selects the order of the two keys.
#include "support.h"

#include "agent/kvagent.h"
#include "agent/trapgate.h"
#include "device/trapcatalogue.h"
#include "faults/faulthandler.h"
#include "tal/talhandler.h"

#include <algorithm>

namespace {

struct Report {
    QString reporter;
    QString repRef;
    QString identifier;
    bool active;
};

int trapsSent = 0;

int takeTrap(std::uint32_t, const char *, std::int32_t, const char *)
{
    ++trapsSent;
    return 0;
}

/// A data-service handler with a fault handler, all traps enabled, and the last report.
class Bench {
public:
    Bench() : m_handler(nullptr, 6420, "Orvane Brisel Extended"), m_faults(nullptr, m_gate)
    {
        m_gate.openSession(-1);
        QMap<QString, bool> enabled;
        for (const Trap &trap : trapCatalogue)
            enabled.insert(textOf(trap.name), true);
        m_faults.onUpdateEnabledSnmpTraps(enabled);
        QObject::connect(&m_handler, &TalHandler::signalReportFault, &m_faults, &FaultHandler::onReportFault);
        QObject::connect(&m_handler, &TalHandler::signalReportFault, &m_handler,
                         [this](const QString &reporter, const QString &repRef, const QString &identifier,
                                const QString &, const QString &, const QString &, bool active) {
                             m_report = {reporter, repRef, identifier, active};
                             m_reported = true;
                         });
    }

    /// The report of one notification; null without one.
    const Report *notify(const char *operation, const QString &rPath, const QString &data)
    {
        m_reported = false;
        m_handler.talHandlerNotifySlot(QStringLiteral("kvsnmp_sys_messages"), QLatin1String(operation), rPath,
                                       QStringLiteral("/state/sys_messages/sys_message"), data);
        return m_reported ? &m_report : nullptr;
    }

private:
    TalHandler m_handler;
    TrapGate m_gate;
    FaultHandler m_faults;
    Report m_report;
    bool m_reported = false;
};

QString predicate(const char *key, const QString &value)
{
    return QStringLiteral("[%1='").arg(QLatin1String(key)) + value + QStringLiteral("']");
}

QString leaf(const char *name, const QString &text)
{
    const QString tag = QLatin1String(name);
    return QLatin1Char('<') + tag + QLatin1Char('>') + text.toHtmlEscaped() + QLatin1String("</") + tag +
           QLatin1Char('>');
}

/// Whether a tag of this text is an element of exactly this name, without white space and attributes.
bool isPlainName(const QString &text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar c) {
        return c == QLatin1Char('_') || (c >= QLatin1Char('a') && c <= QLatin1Char('z'));
    });
}

bool isTrap(const QString &identifier)
{
    for (const Trap &trap : trapCatalogue)
        for (const std::string_view msgId : trap.msgIds)
            if (identifier == textOf(msgId))
                return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static KvAgent agent{};
    if (kvAgent == nullptr) {
        quieten();
        agent.sendTrap = takeTrap;
        kvAgent = &agent;
    }
    static Bench bench; // each input leaves it without a fault
    trapsSent = 0;

    std::string_view rest = viewOf(data, size);
    // A key cannot contain an apostrophe, and a carriage return in a leaf would need a character reference.
    const auto keyText = [](std::string_view bytes) {
        return textOf(bytes).remove(QLatin1Char('\'')).remove(QLatin1Char('\r'));
    };
    const QString reporter = keyText(takeUpTo(rest, '\n'));
    const QString repRef = keyText(takeUpTo(rest, '\n'));
    const QString identifier = textOf(takeUpTo(rest, '\n'));
    const QString deletedPath = textOf(rest);

    if (const Report *ended = bench.notify("delete", deletedPath, {})) {
        require(!ended->active, "a deletion reports an end");
        require(deletedPath.contains(ended->reporter) && deletedPath.contains(ended->repRef),
                "what has ended is what the path names");
    }

    const bool reporterFirst = size == 0 || data[0] % 2 == 0;
    const QString first = predicate("reporter", reporter);
    const QString second = predicate("rep_ref", repRef);
    const QString path =
        QStringLiteral("/state/sys_messages/sys_message") + (reporterFirst ? first + second : second + first);
    const QString message = QStringLiteral("<sys_message>") + leaf("reporter", reporter) + leaf("rep_ref", repRef) +
                            QStringLiteral("<level>err</level><msgdata><") + identifier +
                            QStringLiteral("/></msgdata></sys_message>");
    const Report *begun = bench.notify("create", path, message);
    if (begun == nullptr)
        return 0; // the message is not well-formed
    const Report active = *begun;
    require(active.active, "a message that was made reports a beginning");
    require(!isPlainName(identifier) || active.identifier == identifier, "a message is reported by its name");
    require(trapsSent == (isTrap(active.identifier) ? 1 : 0), "a fault with a trap sends it");
    bench.notify("replace", path, message);
    require(trapsSent <= 1, "a known fault sends nothing again");

    const Report *ended = bench.notify("delete", path, {});
    require(ended != nullptr && !ended->active, "each message that began is reported ended");
    require(ended->reporter == active.reporter && ended->repRef == active.repRef, "the end is reported of what began");
    return 0;
}
