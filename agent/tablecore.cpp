// What every table does alike.
#include "agent/tablecore.h"

#include "agent/requestgate.h"

#include <cstdio>

namespace {
constexpr int cacheSeconds = 60;
// What a handler returns when it gets no request information or no table information.
constexpr int missingInfo = SNMP_ERR_BADVALUE;
static_assert(missingInfo == 3);

void serveCell(std::span<const Column> columns, const TableRow *row, std::size_t number,
               netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
{
    if (number < 1 || number > columns.size()) {
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
        return;
    }
    if (row == nullptr) {
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
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
    for (const RowSet &rowSet : rowSets) {
        if (rowSet.models.contains(kvAgent->modelNumber))
            return &rowSet;
    }
    return nullptr;
}

void registerTable(const char *name, std::span<const oid> object, std::size_t columns, const TableHooks &hooks)
{
    auto *registration =
        netsnmp_create_handler_registration(name, hooks.handler, object.data(), object.size(), HANDLER_CAN_RONLY);

    auto *tableInfo = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    netsnmp_table_helper_add_indexes(tableInfo, ASN_INTEGER, 0);
    tableInfo->min_column = 1;
    tableInfo->max_column = static_cast<unsigned int>(columns);

    auto *iteratorInfo = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    iteratorInfo->get_first_data_point = hooks.getFirst;
    iteratorInfo->get_next_data_point = hooks.getNext;
    iteratorInfo->table_reginfo = tableInfo;
    iteratorInfo->flags |= NETSNMP_HANDLER_OWNS_IINFO; // both are freed with the registration
    // Rows ascend (goodLines), so a GETNEXT may stop at the first one that fits: it looks at half of them on average.
    iteratorInfo->flags |= NETSNMP_ITERATOR_FLAG_SORTED;
    if (netsnmp_register_table_iterator(registration, iteratorInfo) != MIB_REGISTERED_OK)
        return; // the library has said so and has freed the registration

    netsnmp_cache *cache =
        netsnmp_cache_create(cacheSeconds, hooks.load, hooks.free, object.data(), static_cast<int>(object.size()));
    netsnmp_inject_handler_before(registration, netsnmp_cache_handler_get(cache), TABLE_ITERATOR_NAME);
    netsnmp_inject_handler_before(registration, makeRequestGate(), TABLE_HANDLER_NAME);
}

int serveTable(const char *name, std::span<const Column> columns, netsnmp_agent_request_info *reqinfo,
               netsnmp_request_info *requests)
{
    if (reqinfo == nullptr) {
        std::printf("%s_handler() ERROR reqinfo was NULL \n", name);
        return missingInfo;
    }
    if (reqinfo->mode != MODE_GET) // the iterator turns GETNEXT into GET, the registration refuses SET
        return SNMP_ERR_NOERROR;

    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        const auto *row = static_cast<const TableRow *>(netsnmp_extract_iterator_context(request));
        const netsnmp_table_request_info *info = netsnmp_extract_table_info(request);
        if (info == nullptr) {
            // The rest of the PDU goes unanswered, so it fails as a whole: intended.
            std::printf("%s_handler() ERROR extracting table_info. table_info was NULL \n", name);
            netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
            return missingInfo;
        }
        serveCell(columns, row, info->colnum, reqinfo, request);
    }
    return SNMP_ERR_NOERROR;
}

netsnmp_variable_list *RowChain::next(void **loopContext, void **dataContext, netsnmp_variable_list *index)
{
    auto *row = static_cast<TableRow *>(*loopContext);
    if (row == nullptr)
        return nullptr;
    snmp_set_var_typed_value(index, ASN_INTEGER, &row->index, sizeof(row->index));
    *dataContext = row;
    *loopContext = row->next;
    return index;
}

void RowChain::append(TableRow &row, std::uint32_t index, std::string_view description, std::size_t source)
{
    row.index = index;
    setText(row.description, description);
    row.status = 1;
    row.source = source;
    row.next = nullptr;
    (m_last != nullptr ? m_last->next : m_head) = &row;
    m_last = &row;
    ++m_count;
}

bool canLoad(const char *tableName, bool hasRecord, const char *pointerName)
{
    if (kvAgent == nullptr) {
        std::printf("%s_load() kvAgent == NULL\n", tableName);
        return false;
    }
    if (!hasRecord)
        std::printf("%s_load() kvAgent->%s == NULL\n", tableName, pointerName);
    return hasRecord;
}
