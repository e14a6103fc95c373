// What every parser does with one key of a notification: look it up, refuse unexpected operations, convert, store.
#include "tal/keystep.h"

#include <xrcommon/TalInterface.h>

#include <QDebug>
#include <QStringBuilder>

namespace {

void complain(const Notification &n, const KeyRule &rule, const Keys &keys)
{
    QDebug line = qDebug().noquote();
    line << rule.name << "op:" << n.op << "rPath:" << n.rPath << "sPath:" << n.sPath;
    if (rule.keyLabel == noKey)
        return;
    line << rule.keyLabel << latin1(keys.first);
    if (!keys.second.empty())
        line << latin1(keys.second);
}

Outcome outcomeOfText(const CodeMap &map, const QString &text)
{
    for (const TextCode &entry : map.codes)
        if (text == latin1(entry.text))
            return store(entry.code);
    if (map.onOther.kind == Outcome::Kind::Scaled)
        return store(scaledInteger(text, map.onOther.value));
    if (map.onOther.kind == Outcome::Kind::WholeNumber)
        return store(text.toUInt());
    return map.onOther;
}

Outcome outcomeOfKey(const Notification &n, const KeyRule &rule, const Keys &keys, QString &text)
{
    if (!TalInterface::xpathGetTextNode(text, rule.path.with(keys), n.sPath, n.rPath, n.data))
        return notHandled;
    switch (operationOf(n)) {
    case Operation::Delete:
        return rule.map.onDelete;
    case Operation::Unexpected:
        complain(n, rule, keys);
        return notHandled;
    case Operation::Change:
        break;
    }
    return outcomeOfText(rule.map, text);
}

} // namespace

QString KeyPath::with(const Keys &keys) const
{
    return latin1(m_head) % latin1(keys.first) % latin1(m_middle) % latin1(keys.second) % latin1(m_tail);
}

Step keyStep(const Notification &n, const KeyRule &rule, const Keys &keys, std::uint32_t &scratch)
{
    QString text;
    const Outcome outcome = outcomeOfKey(n, rule, keys, text);
    switch (outcome.kind) {
    case Outcome::Kind::NotHandled:
        return Step::NotHandled;
    case Outcome::Kind::LeaveRow:
        return Step::RowLeft;
    case Outcome::Kind::Store:
        scratch = outcome.value;
        return Step::Handled;
    default:
        return Step::Handled; // the scratch value as it is
    }
}

bool textStep(const Notification &n, const KeyRule &rule, const Keys &keys, QString &text)
{
    return outcomeOfKey(n, rule, keys, text).kind == Outcome::Kind::AsText;
}

Operation operationOf(const Notification &n)
{
    if (n.op == QLatin1String("create") || n.op == QLatin1String("replace"))
        return Operation::Change;
    return n.op == QLatin1String("delete") ? Operation::Delete : Operation::Unexpected;
}

std::uint32_t codeOf(std::span<const TextCode> codes, const QString &text, std::uint32_t other)
{
    for (const TextCode &entry : codes)
        if (text == latin1(entry.text))
            return entry.code;
    return other;
}

std::uint32_t scaledInteger(QStringView text, std::uint32_t scale)
{
    std::uint32_t value = 0;
    bool inFraction = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        uint character = text[i].unicode();
        if (text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            character = QChar::surrogateToUcs4(text[i], text[i + 1]);
            ++i;
        }
        if (character == '.') {
            inFraction = true;
        } else if (QChar::isDigit(character)) { // decimal digits of any script
            if (inFraction)
                scale /= 10;
            value = value * 10 + static_cast<std::uint32_t>(QChar::digitValue(character));
        }
    }
    return scale * value;
}
