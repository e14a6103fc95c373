// The step common to all parsers for one key of a notification: look up, refuse unexpected operations, convert, store.
#include "tal/keystep.h"

#include <xrcommon/TalInterface.h>

#include <QDebug>
#include <QLocale>
#include <QStringBuilder>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

enum class Found {
    Nothing, ///< or a refused operation
    Deleted,
    Text,
};

void complain(const Notification &n, const KeyPlace &place, const Keys &keys)
{
    QDebug line = qDebug().noquote();
    line << place.name << "op:" << n.op << "rPath:" << n.rPath << "sPath:" << n.sPath;
    if (place.keyLabel == noKey)
        return;
    line << place.keyLabel << latin1(keys.first);
    if (!keys.second.empty())
        line << latin1(keys.second);
}

Found lookUp(const Notification &n, const KeyPlace &place, const Keys &keys, QString &text)
{
    if (!TalInterface::xpathGetTextNode(text, place.path.with(keys), n.sPath, n.rPath, n.data))
        return Found::Nothing;
    switch (operationOf(n)) {
    case Operation::Change:
        return Found::Text;
    case Operation::Delete:
        return Found::Deleted;
    case Operation::Unexpected:
        complain(n, place, keys);
        break;
    }
    return Found::Nothing;
}

Step deletedStep(const OnDelete &onDelete, std::uint32_t &scratch)
{
    switch (onDelete.kind) {
    case OnDelete::Kind::Store:
        scratch = onDelete.code;
        return Step::Handled;
    case OnDelete::Kind::LeaveRow:
        return Step::RowLeft;
    case OnDelete::Kind::NotHandled:
        break;
    }
    return Step::NotHandled;
}

/// Null for a text without a code.
const TextCode *entryOf(std::span<const TextCode> codes, const QString &text)
{
    const auto found = std::ranges::find_if(codes, [&](const TextCode &entry) { return text == latin1(entry.text); });
    return found != codes.end() ? &*found : nullptr;
}

Step changedStep(const CodeMap &map, const QString &text, std::uint32_t &scratch)
{
    if (const TextCode *entry = entryOf(map.codes, text)) {
        scratch = entry->code;
        return Step::Handled;
    }
    switch (map.onOther.kind) {
    case OnOther::Kind::Store:
        scratch = map.onOther.number;
        break;
    case OnOther::Kind::Scaled:
        scratch = scaledInteger(text, map.onOther.number);
        break;
    case OnOther::Kind::WholeNumber:
        scratch = text.toUInt();
        break;
    case OnOther::Kind::KeepScratch:
        break;
    case OnOther::Kind::NotHandled:
        return Step::NotHandled;
    }
    return Step::Handled;
}

/// Digits with at most one point, perhaps after a sign.
bool isDecimal(QStringView text)
{
    text = text.trimmed();
    if (text.startsWith(QLatin1Char('-')) || text.startsWith(QLatin1Char('+')))
        text = text.mid(1);
    const auto isDigit = [](QChar character) { return character >= QLatin1Char('0') && character <= QLatin1Char('9'); };
    const auto digits = std::ranges::count_if(text, isDigit);
    return digits > 0 && digits + text.count(QLatin1Char('.')) == text.size() && text.count(QLatin1Char('.')) <= 1;
}

/// `value`: what scaledInteger() has made of the text.
Reading readingOf(QStringView text, std::uint32_t scale, std::uint32_t value)
{
    if (!isDecimal(text))
        return Reading::NoNumber;
    const double number = std::abs(QLocale::c().toDouble(text.trimmed())) * scale;
    if (number > std::numeric_limits<std::uint32_t>::max())
        return Reading::TooLarge;
    return std::abs(number - value) < 0.5 ? Reading::Number : Reading::None;
}

} // namespace

QString KeyPath::with(const Keys &keys) const
{
    return latin1(m_head) % latin1(keys.first) % latin1(m_middle) % latin1(keys.second) % latin1(m_tail);
}

Step keyStep(const Notification &n, const KeyRule &rule, const Keys &keys, std::uint32_t &scratch)
{
    QString text;
    switch (lookUp(n, rule.place, keys, text)) {
    case Found::Text:
        return changedStep(rule.map, text, scratch);
    case Found::Deleted:
        return deletedStep(rule.map.onDelete, scratch);
    case Found::Nothing:
        break;
    }
    return Step::NotHandled;
}

Step measureStep(const Notification &n, const KeyRule &rule, const Keys &keys, Measured &measured)
{
    QString text;
    switch (lookUp(n, rule.place, keys, text)) {
    case Found::Text:
        measured.value = scaledInteger(text, rule.map.onOther.number);
        measured.reading = readingOf(text, rule.map.onOther.number, measured.value);
        return Step::Handled;
    case Found::Deleted:
        measured.reading = Reading::None;
        return deletedStep(rule.map.onDelete, measured.value);
    case Found::Nothing:
        break;
    }
    return Step::NotHandled;
}

bool textStep(const Notification &n, const TextRule &rule, const Keys &keys, QString &text)
{
    return lookUp(n, rule.place, keys, text) == Found::Text;
}

Operation operationOf(const Notification &n)
{
    if (n.op == QLatin1String("create") || n.op == QLatin1String("replace"))
        return Operation::Change;
    return n.op == QLatin1String("delete") ? Operation::Delete : Operation::Unexpected;
}

std::uint32_t codeOf(std::span<const TextCode> codes, const QString &text, std::uint32_t other)
{
    const TextCode *entry = entryOf(codes, text);
    return entry != nullptr ? entry->code : other;
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
