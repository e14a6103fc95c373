// The code common to all tables: rows and their chain, iteration, answers, registration, load and refill.
#pragma once

#include "agent/enterprise.h"
#include "agent/kvagent.h"
#include "agent/scalarcore.h"
#include "agentlib/netsnmp.h"
#include "device/boundedtext.h"
#include "device/models.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

/// A text of a row, served with its stored length, without padding.
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

/// The common head of every table's rows. Rows are static; those in use are chained once, at start.
struct TableRow {
    std::uint32_t index; ///< from 1, also the row's place among the table's static rows
    RowText<128> description;
    std::uint32_t status; ///< 1: in use; not served
    std::size_t source;   ///< element of the data-service record with the row's values
    TableRow *next;       ///< next row in use, by ascending index; null at the end
};

constexpr Cell cellOf(const std::uint32_t &number)
{
    return {&number, sizeof(number)};
}

void cellOf(const std::uint32_t &&number) = delete; // a cell does not keep its number

constexpr Cell cellOf(const Measured &measured)
{
    return cellOf(measured.value);
}

template <std::size_t size>
constexpr Cell cellOf(const RowText<size> &field)
{
    return {field.text, field.length};
}

/// A row with its values: usually a copy of the element of the data-service record.
template <class Values>
struct ValueRow : TableRow {
    Values values;
};

/// One column: its syntax and the place of its value in a row.
struct Column {
    u_char type;
    Cell (*cell)(const TableRow &row);
};

/// A first column that is not accessible.
inline constexpr Column notAccessible = {};

template <class Class, class Member>
Class classOf(Member Class::*);

/// The cell function of a member: of TableRow, or of the row's values.
template <auto member>
constexpr Cell cell(const TableRow &row)
{
    using Values = decltype(classOf(member));
    if constexpr (std::is_same_v<Values, TableRow>)
        return cellOf(row.*member);
    else
        return cellOf(static_cast<const ValueRow<Values> &>(row).values.*member);
}

/// The cell function of a row whose value is one number.
constexpr Cell numberCell(const TableRow &row)
{
    return cellOf(static_cast<const ValueRow<std::uint32_t> &>(row).values);
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

/// The rows of a table on some models (noModelTest: on all), the additional rows of stations with expanders, and the
/// label that the start prints for them (null: nothing).
struct RowSet {
    ModelSet models;
    std::span<const Line> lines;
    const char *logLabel = nullptr;
    std::span<const Line> expanderLines = {};
};

/// True when the indexes are above `last` and ascend, and every source is below `slots`, the size of its record.
constexpr bool goodLines(std::span<const Line> lines, std::size_t slots, std::uint32_t last = 0)
{
    for (const Line &line : lines) {
        if (line.index <= last || line.source >= slots)
            return false;
        last = line.index;
    }
    return true;
}

constexpr bool goodLines(std::span<const RowSet> rowSets, std::size_t slots)
{
    return std::ranges::all_of(rowSets, [slots](const RowSet &rowSet) {
        return goodLines(rowSet.lines, slots) && goodLines(rowSet.expanderLines, slots, rowSet.lines.back().index);
    });
}

/// The highest index, which is the number of static rows of a table.
constexpr std::uint32_t highestIndex(std::span<const RowSet> rowSets)
{
    std::uint32_t highest = 0;
    for (const RowSet &rowSet : rowSets)
        highest = std::max(highest, (rowSet.expanderLines.empty() ? rowSet.lines : rowSet.expanderLines).back().index);
    return highest;
}

/// The row set of the device's model, null when it has none.
const RowSet *rowSetOf(std::span<const RowSet> rowSets);

/// The chain of a table's rows in use.
class RowChain {
public:
    std::uint32_t count() const { return m_count; }
    TableRow *first() const { return m_first; }

    /// Takes more rows into use. Call with ascending indexes, only at start.
    void use(std::span<const Line> lines);

protected:
    using RowAt = TableRow &(*)(RowChain &chain, std::size_t place);
    explicit constexpr RowChain(RowAt rowAt) : m_rowAt(rowAt) {}

private:
    RowAt m_rowAt;
    TableRow *m_first = nullptr;
    TableRow *m_last = nullptr;
    std::uint32_t m_count = 0;
};

/// The static rows of one table, with their values until the first copy. `slots`: the number of elements of the table's
/// record.
template <class Values, const auto &rowSets, std::size_t slots>
class Rows : public RowChain {
    static_assert(goodLines(rowSets, slots));

public:
    explicit constexpr Rows(const Values &startValues) : RowChain(rowAt)
    {
        for (ValueRow<Values> &row : m_rows)
            row.values = startValues;
    }

private:
    static TableRow &rowAt(RowChain &chain, std::size_t place) { return static_cast<Rows &>(chain).m_rows[place]; }

    ValueRow<Values> m_rows[highestIndex(rowSets)] = {};
};

/// The data-service record of a table, usually from recordSource().
struct RecordSource {
    const char *pointer; ///< the name of its pointer in the agent record
    bool (*present)();   ///< the agent has the record; call only while there is an agent
    void (*copyRow)(TableRow &row);
};

/// The record at `pointer`, whose name is `name`; a row's values are an element of its array `elements`.
template <auto pointer, auto elements>
constexpr RecordSource recordSource(const char *name)
{
    using Values = std::remove_cvref_t<decltype(((kvAgent->*pointer)->*elements)[0])>;
    return {name, [] { return kvAgent->*pointer != nullptr; },
            [](TableRow &row) {
                static_cast<ValueRow<Values> &>(row).values = ((kvAgent->*pointer)->*elements)[row.source];
            }};
}

/// A table's functions: the library's callbacks, and two that only print, because rows are only created at start.
struct TableHooks {
    Netsnmp_Node_Handler *handler;
    Netsnmp_First_Data_Point *getFirst;
    Netsnmp_Next_Data_Point *getNext;
    NetsnmpCacheLoad *load;
    NetsnmpCacheFree *free;
    void (*createEntry)();
    void (*removeEntry)();
};

/// One table, read-only, with one INTEGER index: all that the core needs to serve it.
struct TableModule {
    const char *name; ///< "fanTable"; also starts the output of the table's functions
    Oid object;
    std::span<const Column> columns; ///< column n is columns[n - 1]
    std::span<const RowSet> rowSets;
    RowChain *rows;
    Scalar count = {}; ///< the number of rows; some tables have none
    RecordSource record;
    void (*refill)(); ///< copies the record into the rows
    TableHooks hooks;
};

/// Registers the table and takes the model's rows into use. A request passes the request gate, the cache (which loads
/// when the last load is 60 s old), the iterator and the handler, in this order.
void initializeTable(const TableModule &table);

// The implementations of a table's functions. Each prints its name, which starts with the table's.
netsnmp_variable_list *firstRow(const TableModule &table, void **loop, void **data, netsnmp_variable_list *index);
netsnmp_variable_list *nextRow(const TableModule &table, void **loop, void **data, netsnmp_variable_list *index);
int loadTable(const TableModule &table);
void freeTable(const TableModule &table);
void refillTable(const TableModule &table);

/// Answers the requests of one call. `name`, or the table's, starts the error messages.
int serveTable(const TableModule &table, netsnmp_agent_request_info *info, netsnmp_request_info *requests,
               const char *name = nullptr);
int serveCount(const TableModule &table, const netsnmp_agent_request_info *info, netsnmp_request_info *requests);

// The steps of loadTable() and refillTable(), for the tables that differ.
/// False when there is no agent or no record to copy from.
bool beginLoad(const TableModule &table);
void beginRefill(const TableModule &table);
/// Copies the record into every row in use; without a record the rows keep their values.
void copyRecord(const TableModule &table);
