// What every parser does with one key of a notification: look it up, refuse unexpected operations, convert, store.
#pragma once

#include "device/models.h"
#include "tal/notification.h"

#include <QString>
#include <QStringView>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// A constant of the tables as Qt takes it.
inline QLatin1String latin1(std::string_view text)
{
    return QLatin1String(text.data(), static_cast<int>(text.size()));
}

/// What fills the holes of a key path: the key, and for some a second one or a leaf.
struct Keys {
    std::string_view first;
    std::string_view second;
};

/// A path with up to two holes, %1 and %2 in this order, taken apart when it is compiled.
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

/// What becomes of a key: made by the names below.
struct Outcome {
    enum class Kind : std::uint8_t { Store, KeepScratch, LeaveRow, NotHandled, Scaled, WholeNumber, AsText };
    Kind kind;
    std::uint32_t value;
};

/// The scratch value and with it the row become `code`.
constexpr Outcome store(std::uint32_t code)
{
    return {Outcome::Kind::Store, code};
}

/// The scratch value and with it the row become the decimal text times `scale`.
constexpr Outcome scaled(std::uint32_t scale)
{
    return {Outcome::Kind::Scaled, scale};
}

/// The scratch value and with it the row become the text read as an unsigned integer, 0 when it is none.
inline constexpr Outcome wholeNumber{Outcome::Kind::WholeNumber, 0};
/// The row takes the text as it is: for textStep() only.
inline constexpr Outcome asText{Outcome::Kind::AsText, 0};
/// The row gets what its parser produced last, for whichever key.
inline constexpr Outcome keepScratch{Outcome::Kind::KeepScratch, 0};
/// The key counts as handled, the row stays as it is.
inline constexpr Outcome leaveRow{Outcome::Kind::LeaveRow, 0};
/// As if the key were not there.
inline constexpr Outcome notHandled{Outcome::Kind::NotHandled, 0};

struct TextCode {
    std::string_view text;
    std::uint32_t code;
};

/// Words to codes, with what "delete" and any other text do.
struct CodeMap {
    std::span<const TextCode> codes;
    Outcome onDelete;
    Outcome onOther;
};

/// One kind of value: where it stands in the tree, how it is converted, who complains about an unexpected operation.
struct KeyRule {
    const char *name;     ///< first word of the complaint
    const char *keyLabel; ///< stands before the key in the complaint; null: the key is not told
    KeyPath path;
    CodeMap map;
};

inline constexpr const char *noKey = nullptr;
inline constexpr const char *kid = "kid:";

enum class Step {
    NotHandled, ///< not in the notification, or refused
    RowLeft,    ///< handled, but the row keeps its value
    Handled,    ///< the scratch value goes into the row
};

/// The one discipline: looks the key up in the notification and brings its value into `scratch`.
Step keyStep(const Notification &n, const KeyRule &rule, const Keys &keys, std::uint32_t &scratch);

/// The same for a value that is kept as text. True when `text` is to be stored.
bool textStep(const Notification &n, const KeyRule &rule, const Keys &keys, QString &text);

enum class Operation { Change, Delete, Unexpected };

/// "create" and "replace" are changes.
Operation operationOf(const Notification &n);

/// The code of a word, or `other`.
std::uint32_t codeOf(std::span<const TextCode> codes, const QString &text, std::uint32_t other);

/// Reads the digits of a decimal text and multiplies by `scale`. Each fractional digit divides the scale by ten, so
/// that more of them than the scale has zeros give 0; everything but digits and the point is skipped, signs too.
std::uint32_t scaledInteger(QStringView text, std::uint32_t scale);

/// One key and the place in the record that it feeds.
struct KeyRow {
    std::string_view key;
    std::uint32_t row;
};

/// The keys of some models; a table lists its sets in the order in which their keys are tried.
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
