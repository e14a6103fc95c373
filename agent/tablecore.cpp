// The code common to all tables.
#include "agent/tablecore.h"

#include "agentlib/requestgate.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {
constexpr int cacheSeconds = 60;
// A handler's result without request information or table information.
constexpr int missingInfo = SNMP_ERR_BADVALUE;
static_assert(missingInfo == 3);

void registerTable(const TableModule &table)
{
    auto *registration = netsnmp_create_handler_registration(table.name, table.hooks.handler, table.object.arcs,
                                                             table.object.length, HANDLER_CAN_RONLY);

    auto *tableInfo = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    netsnmp_table_helper_add_indexes(tableInfo, ASN_INTEGER, 0);
    tableInfo->min_column = table.columns[0].cell == nullptr ? 2 : 1;
    tableInfo->max_column = static_cast<unsigned int>(table.columns.size());

    auto *iteratorInfo = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    iteratorInfo->get_first_data_point = table.hooks.getFirst;
    iteratorInfo->get_next_data_point = table.hooks.getNext;
    iteratorInfo->table_reginfo = tableInfo;
    iteratorInfo->flags |= NETSNMP_HANDLER_OWNS_IINFO; // both are freed with the registration
    // Rows ascend (goodLines), so a GETNEXT stops at the first match: it visits half of them on average.
    iteratorInfo->flags |= NETSNMP_ITERATOR_FLAG_SORTED;
    if (netsnmp_register_table_iterator(registration, iteratorInfo) != MIB_REGISTERED_OK)
        return; // the library has logged the error and freed the registration

    netsnmp_cache *cache = netsnmp_cache_create(cacheSeconds, table.hooks.load, table.hooks.free, table.object.arcs,
                                                static_cast<int>(table.object.length));
    netsnmp_inject_handler_before(registration, netsnmp_cache_handler_get(cache), TABLE_ITERATOR_NAME);
    netsnmp_inject_handler_before(registration, makeRequestGate(cache), TABLE_HANDLER_NAME);
}

/// The table's name as a part of other names: with a capital first letter.
struct InnerName {
    explicit InnerName(const TableModule &table) : capital(std::toupper(table.name[0])), rest(table.name + 1) {}

    int capital;
    const char *rest;
};

/// One write without a format, because a request visits many rows.
void printVisit(std::string_view table)
{
    constexpr std::string_view function = "_get_next_data_point()\n";
    char line[64];
    const std::size_t length = std::min(table.size(), sizeof(line) - function.size());
    std::memcpy(line, table.data(), length);
    std::memcpy(line + length, function.data(), function.size());
    fwrite_unlocked(line, 1, length + function.size(), stdout);
}

/// The library's variable of an INTEGER index has its size from the first row on; then only the number changes.
void setIndex(netsnmp_variable_list &variable, std::uint32_t index)
{
    if (variable.type == ASN_INTEGER && variable.val_len == sizeof(long) && variable.val.integer != nullptr)
        *variable.val.integer = static_cast<long>(index);
    else
        snmp_set_var_typed_value(&variable, ASN_INTEGER, &index, sizeof(index));
}

void serveCell(std::span<const Column> columns, const TableRow *row, std::size_t number,
               netsnmp_agent_request_info *info, netsnmp_request_info *request)
{
    if (number < 1 || number > columns.size() || columns[number - 1].cell == nullptr) {
        netsnmp_set_request_error(info, request, SNMP_NOSUCHOBJECT);
        return;
    }
    if (row == nullptr) {
        netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
        return;
    }
    const Column &column = columns[number - 1];
    const Cell value = column.cell(*row);
    snmp_set_var_typed_value(request->requestvb, column.type, value.data, value.length);
}
} // namespace

const RowSet *rowSetOf(std::span<const RowSet> rowSets)
{
    if (kvAgent == nullptr)
        return nullptr;
    const auto found = std::ranges::find_if(
        rowSets, [](const RowSet &rowSet) { return rowSet.models.contains(kvAgent->modelNumber); });
    return found != rowSets.end() ? &*found : nullptr;
}

void RowChain::use(std::span<const Line> lines)
{
    for (const Line &line : lines) {
        TableRow &row = m_rowAt(*this, line.index - 1);
        row.index = line.index;
        setText(row.description, line.description);
        row.status = 1;
        row.source = line.source;
        (m_last != nullptr ? m_last->next : m_first) = &row;
        m_last = &row;
        ++m_count;
    }
}

void initializeTable(const TableModule &table)
{
    std::printf("%s: initialize_table_%s()\n", table.name, table.name);
    registerTable(table);
    const RowSet *rowSet = rowSetOf(table.rowSets);
    if (rowSet == nullptr)
        return;
    table.rows->use(rowSet->lines);
    if (hasExpanders(kvAgent->modelText))
        table.rows->use(rowSet->expanderLines);
    if (rowSet->logLabel != nullptr) {
        const InnerName name(table);
        std::printf("init%c%sModel() %s\n", name.capital, name.rest, rowSet->logLabel);
    }
}

netsnmp_variable_list *firstRow(const TableModule &table, void **loop, void **data, netsnmp_variable_list *index)
{
    *loop = table.rows->first();
    return table.hooks.getNext(loop, data, index, nullptr);
}

netsnmp_variable_list *nextRow(const TableModule &table, void **loop, void **data, netsnmp_variable_list *index)
{
    printVisit(table.name);
    auto *row = static_cast<TableRow *>(*loop);
    if (row == nullptr)
        return nullptr;
    setIndex(*index, row->index);
    *data = row;
    *loop = row->next;
    return index;
}

int serveTable(const TableModule &table, netsnmp_agent_request_info *info, netsnmp_request_info *requests,
               const char *name)
{
    if (name == nullptr)
        name = table.name;
    if (info == nullptr) {
        std::printf("%s_handler() ERROR reqinfo was NULL \n", name);
        return missingInfo;
    }
    if (info->mode != MODE_GET) // the iterator turns GETNEXT into GET, the registration refuses SET
        return SNMP_ERR_NOERROR;

    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        const auto *row = static_cast<const TableRow *>(netsnmp_extract_iterator_context(request));
        const netsnmp_table_request_info *tableInfo = netsnmp_extract_table_info(request);
        if (tableInfo == nullptr) {
            // The rest of the PDU stays unanswered, so all of it fails: intended.
            std::printf("%s_handler() ERROR extracting table_info. table_info was NULL \n", name);
            netsnmp_set_request_error(info, request, SNMP_NOSUCHOBJECT);
            return missingInfo;
        }
        serveCell(table.columns, row, tableInfo->colnum, info, request);
    }
    return SNMP_ERR_NOERROR;
}

int serveCount(const TableModule &table, const netsnmp_agent_request_info *info, netsnmp_request_info *requests)
{
    return serveInteger(table.count.handlerName, table.rows->count(), info, requests);
}

bool beginLoad(const TableModule &table)
{
    std::printf("%s_load()\n", table.name);
    if (kvAgent == nullptr) {
        std::printf("%s_load() kvAgent == NULL\n", table.name);
        return false;
    }
    if (!table.record.present()) {
        std::printf("%s_load() kvAgent->%s == NULL\n", table.name, table.record.pointer);
        return false;
    }
    return true;
}

int loadTable(const TableModule &table)
{
    if (!beginLoad(table))
        return -1;
    if (rowSetOf(table.rowSets) != nullptr) // a model without a row set has nothing to copy, and prints nothing
        table.refill();
    return 0;
}

void freeTable(const TableModule &table)
{
    std::printf("%s_free()\n", table.name);
}

void refillTable(const TableModule &table)
{
    beginRefill(table);
    copyRecord(table);
}

void beginRefill(const TableModule &table)
{
    const InnerName name(table);
    std::printf("copyTal%c%sData()\nrefill%c%sEntries()\n", name.capital, name.rest, name.capital, name.rest);
}

void copyRecord(const TableModule &table)
{
    if (kvAgent == nullptr || !table.record.present())
        return;
    for (TableRow *row = table.rows->first(); row != nullptr; row = row->next)
        table.record.copyRow(*row);
}
