// The step common to all parsers for one key of a notification: look up, refuse unexpected operations, convert, store.
#pragma once

#include "device/latin1.h"
#include "device/models.h"
#include "device/tablerecords.h"
#include "tal/notification.h"

#include <QString>
#include <QStringView>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// The values for the holes of a key path: the key, and for some paths a second key or a leaf.
struct Keys {
    std::string_view first;
    std::string_view second;
};

/// A path with up to two holes, %1 and %2 in this order, split at compile time.
class KeyPath {
public:
    consteval KeyPath(const char *path)
    {
        const std::string_view text{path};
        const std::size_t first = text.find("%1");
        m_head = text.substr(0, first);
        if (first == std::string_view::npos)
            return;
        const std::size_t second = text.find("%2", first);
        m_middle = text.substr(first + 2, second == std::string_view::npos ? second : second - first - 2);
        if (second != std::string_view::npos)
            m_tail = text.substr(second + 2);
    }

    QString with(const Keys &keys) const;

private:
    std::string_view m_head;
    std::string_view m_middle;
    std::string_view m_tail;
};

/// The effect of "delete" on a key: store(), leaveRow or notHandled.
struct OnDelete {
    enum class Kind : std::uint8_t { Store, LeaveRow, NotHandled };
    Kind kind;
    std::uint32_t code;
};

/// The effect of a text without a code: store(), scaled(), wholeNumber, keepScratch or notHandled.
struct OnOther {
    enum class Kind : std::uint8_t { Store, Scaled, WholeNumber, KeepScratch, NotHandled };
    Kind kind;
    std::uint32_t number; ///< the code or the scale
};

struct Store {
    std::uint32_t code;
    constexpr operator OnDelete() const { return {OnDelete::Kind::Store, code}; }
    constexpr operator OnOther() const { return {OnOther::Kind::Store, code}; }
};

struct NotHandled {
    constexpr operator OnDelete() const { return {OnDelete::Kind::NotHandled, 0}; }
    constexpr operator OnOther() const { return {OnOther::Kind::NotHandled, 0}; }
};

/// The scratch value, and so the row, becomes `code`.
constexpr Store store(std::uint32_t code)
{
    return {code};
}

/// The scratch value, and so the row, becomes the decimal text times `scale`.
constexpr OnOther scaled(std::uint32_t scale)
{
    return {OnOther::Kind::Scaled, scale};
}

/// The scratch value, and so the row, becomes the text as an unsigned integer, 0 if it is not one.
inline constexpr OnOther wholeNumber{OnOther::Kind::WholeNumber, 0};
/// The row gets the parser's last value, from any key.
inline constexpr OnOther keepScratch{OnOther::Kind::KeepScratch, 0};
/// The key counts as handled, the row stays unchanged.
inline constexpr OnDelete leaveRow{OnDelete::Kind::LeaveRow, 0};
/// As without the key.
inline constexpr NotHandled notHandled{};

struct TextCode {
    std::string_view text;
    std::uint32_t code;
};

/// Words to codes, with the effects of "delete" and of any other text.
struct CodeMap {
    std::span<const TextCode> codes;
    OnDelete onDelete;
    OnOther onOther;
};

/// The place of one kind of value in the tree, and the words of the complaint about an unexpected operation.
struct KeyPlace {
    const char *name;     ///< first word of the complaint
    const char *keyLabel; ///< precedes the key in the complaint; null: the complaint has no key
    KeyPath path;
};

/// A value stored as a number.
struct KeyRule {
    KeyPlace place;
    CodeMap map;
};

/// A value stored as a text; "delete" does not change it.
struct TextRule {
    KeyPlace place;
};

inline constexpr const char *noKey = nullptr;
inline constexpr const char *kid = "kid:";

enum class Step {
    NotHandled, ///< not in the notification, or refused
    RowLeft,    ///< handled, but the row keeps its value
    Handled,    ///< the scratch value goes into the row
};

/// Looks the key up in the notification and stores its value in `scratch`, which changes only when the result is
/// Handled. `scratch` may therefore be the record's field, unless the rule has keepScratch.
Step keyStep(const Notification &n, const KeyRule &rule, const Keys &keys, std::uint32_t &scratch);

/// The same for a measured value, with the origin of the value. The rule is a scale, without words.
Step measureStep(const Notification &n, const KeyRule &rule, const Keys &keys, Measured &measured);

/// The same for a text value. True if `text` is to be stored.
bool textStep(const Notification &n, const TextRule &rule, const Keys &keys, QString &text);

enum class Operation { Change, Delete, Unexpected };

/// True for "create" and "replace".
Operation operationOf(const Notification &n);

/// The code of a word, or `other`.
std::uint32_t codeOf(std::span<const TextCode> codes, const QString &text, std::uint32_t other);

/// Reads the digits of a decimal text and multiplies by `scale`. Each fractional digit divides the scale by ten, so
/// more fractional digits than the scale has zeros give 0. Skips everything except digits and the point, also signs.
std::uint32_t scaledInteger(QStringView text, std::uint32_t scale);

/// One key and the place in the record that it feeds.
struct KeyRow {
    std::string_view key;
    std::uint32_t row;
};

/// The keys of some models. A table's sets are in the order in which their keys are tried.
struct KeySet {
    ModelSet models;
    std::span<const KeyRow> rows;
};

/// Calls `visit(KeyRow)` for each key that the model has, in order.
template <typename Visit>
void forEachKey(std::span<const KeySet> sets, std::uint32_t model, Visit visit)
{
    for (const KeySet &set : sets) {
        if (!set.models.contains(model))
            continue;
        for (const KeyRow &row : set.rows)
            visit(row);
    }
}

/// For static_assert: every key feeds a place inside its record.
consteval bool rowsBelow(std::span<const KeySet> sets, std::size_t count)
{
    for (const KeySet &set : sets)
        for (const KeyRow &row : set.rows)
            if (row.row >= count)
                return false;
    return true;
}
