// What every table does alike: its rows and their chain, the walk along it, the answers, registration, load and refill.
#pragma once

#include "agent/enterprise.h"
#include "agent/kvagent.h"
#include "agent/netsnmp.h"
#include "agent/scalarcore.h"
#include "device/boundedtext.h"
#include "device/models.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// A text of a row, served with its stored length and never padded.
template <std::size_t size>
struct RowText {
    char text[size];
    std::uint32_t length;
};

template <std::size_t size>
constexpr void setText(RowText<size> &field, std::string_view text)
{
    field.length = copyBounded(field.text, text);
}

template <std::size_t size>
constexpr RowText<size> rowText(std::string_view text)
{
    RowText<size> field{};
    setText(field, text);
    return field;
}

/// What a row of any table begins with. Rows are static; the ones in use are chained at start, for good.
struct TableRow {
    std::uint32_t index; ///< from 1, also the row's place among the table's static rows
    RowText<128> description;
    std::uint32_t status; ///< 1: in use; not served
    std::size_t source;   ///< element of the data-service record that the row takes its values from
    TableRow *next;       ///< next row in use, indices ascending; null at the end
};

constexpr Cell cellOf(const std::uint32_t &number)
{
    return {&number, sizeof(number)};
}

template <std::size_t size>
constexpr Cell cellOf(const RowText<size> &field)
{
    return {field.text, field.length};
}

template <class Row, class Value>
Row rowTypeOf(Value Row::*);

/// One column: its syntax and where its value stands in a row.
struct Column {
    u_char type;
    Cell (*cell)(const TableRow &row);
};

/// The cell function of a row's member.
template <auto member>
constexpr Cell cell(const TableRow &row)
{
    using Row = decltype(rowTypeOf(member));
    return cellOf(static_cast<const Row &>(row).*member);
}

/// The cell function of a text that is the same in every row.
template <const auto &field>
constexpr Cell constantCell(const TableRow &)
{
    return cellOf(field);
}

/// One row of a table on some models: source is the element of the data-service record.
struct Line {
    std::uint32_t index;
    const char *description;
    std::size_t source;
};

/// The rows of a table on some models, and what the start prints for them (null: nothing).
struct RowSet {
    ModelSet models;
    std::span<const Line> lines;
    const char *logLabel = nullptr;
};

/// True when the indices ascend from 1 and every source is one of the `slots` elements of its record.
constexpr bool goodLines(std::span<const Line> lines, std::size_t slots)
{
    std::uint32_t last = 0;
    for (const Line &line : lines) {
        if (line.index <= last || line.source >= slots)
            return false;
        last = line.index;
    }
    return true;
}

constexpr bool goodLines(std::span<const RowSet> rowSets, std::size_t slots)
{
    for (const RowSet &rowSet : rowSets) {
        if (!goodLines(rowSet.lines, slots))
            return false;
    }
    return true;
}

/// The highest index, that is how many static rows a table needs.
constexpr std::uint32_t highestIndex(std::span<const RowSet> rowSets)
{
    std::uint32_t highest = 0;
    for (const RowSet &rowSet : rowSets)
        highest = std::max(highest, rowSet.lines.back().index);
    return highest;
}

/// The row set of the device's model, null when it has none.
const RowSet *rowSetOf(std::span<const RowSet> rowSets);

/// The functions of a table that the library calls.
struct TableHooks {
    Netsnmp_Node_Handler *handler;
    Netsnmp_First_Data_Point *getFirst;
    Netsnmp_Next_Data_Point *getNext;
    NetsnmpCacheLoad *load;
    NetsnmpCacheFree *free;
};

/// Registers a read-only table with one INTEGER index: the iterator in front of the handler, in front of the iterator a
/// cache, so that a request first loads when 60 s have passed since the last load, and the request gate before all.
void registerTable(const char *name, std::span<const oid> object, std::size_t columns, const TableHooks &hooks);

/// Answers the requests of one call from the rows that the iterator found. `name` begins the error messages.
int serveTable(const char *name, std::span<const Column> columns, netsnmp_agent_request_info *reqinfo,
               netsnmp_request_info *requests);

/// The chain of the rows in use.
class RowChain {
public:
    std::uint32_t count() const { return m_count; }

    /// Sets the loop context to the first row.
    void rewind(void **loopContext) const { *loopContext = m_head; }

    /// Hands out the row of the loop context and moves the context on. Null at the end.
    static netsnmp_variable_list *next(void **loopContext, void **dataContext, netsnmp_variable_list *index);

protected:
    void append(TableRow &row, std::uint32_t index, std::string_view description, std::size_t source);

    TableRow *m_head = nullptr;

private:
    TableRow *m_last = nullptr;
    std::uint32_t m_count = 0;
};

/// The static rows of one table. Their starting values are the member initialisers of `Row`.
template <class Row, std::size_t rowCount>
class Rows : public RowChain {
public:
    /// Puts one more row to use. To be called with ascending indices, at start only.
    void use(std::uint32_t index, std::string_view description, std::size_t source)
    {
        append(m_rows[index - 1], index, description, source);
    }

    void use(std::span<const Line> lines)
    {
        for (const Line &line : lines)
            use(line.index, line.description, line.source);
    }

    /// Calls copy(row, record) for every row in use; without a record the rows keep their values.
    template <class Record, class Copy>
    void refill(Record *record, Copy copy)
    {
        if (record == nullptr)
            return;
        for (TableRow *row = m_head; row != nullptr; row = row->next)
            copy(static_cast<Row &>(*row), *record);
    }

private:
    Row m_rows[rowCount] = {};
};

/// The data-service record that the agent record points at; null when there is none.
template <class Record>
Record *talRecord(Record *KvAgent::*pointer)
{
    return kvAgent != nullptr ? kvAgent->*pointer : nullptr;
}

/// Says which of the two is missing, when one is.
bool canLoad(const char *tableName, bool hasRecord, const char *pointerName);

/// True when a load has something to copy from. Otherwise says what is missing.
template <class Record>
bool canLoad(const char *tableName, Record *KvAgent::*pointer, const char *pointerName)
{
    return canLoad(tableName, talRecord(pointer) != nullptr, pointerName);
}
