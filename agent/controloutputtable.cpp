// E.3.10: control outputs.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lines[] = { // on every model
    {1, "Control Output 1", 0},
    {2, "Control Output 2", 1},
    {3, "Control Output 3", 2},
    {4, "Control Output 4", 3},
    {5, "Control Output 5", 4},
    {6, "Control Output 6", 5},
};
// clang-format on
static_assert(goodLines(lines, controlOutputRows));

struct ControlOutputTableRow : TableRow {
    std::uint32_t state = 1;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&ControlOutputTableRow::index>},
    {ASN_OCTET_STR, cell<&ControlOutputTableRow::description>},
    {ASN_INTEGER,   cell<&ControlOutputTableRow::state>},
};
// clang-format on

constexpr auto countOid = enterpriseOid(3, 10, 1);
constexpr auto tableOid = enterpriseOid(3, 10, 2);

Rows<ControlOutputTableRow, std::size(lines)> rows;
} // namespace

void init_controlOutputTable()
{
    initialize_table_controlOutputTable();
    std::puts("controlOutputCount Initializing");
    registerScalar("controlOutputCount", countOid, handle_controlOutputCount);
}

void initialize_table_controlOutputTable()
{
    std::puts("controlOutputTable: initialize_table_controlOutputTable()");
    registerTable("controlOutputTable", tableOid, std::size(columns),
                  {controlOutputTable_handler, controlOutputTable_get_first_data_point,
                   controlOutputTable_get_next_data_point, controlOutputTable_load, controlOutputTable_free});
    rows.use(lines);
}

netsnmp_variable_list *controlOutputTable_get_first_data_point(void **loopContext, void **dataContext,
                                                               netsnmp_variable_list *index,
                                                               netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return controlOutputTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *controlOutputTable_get_next_data_point(void **loopContext, void **dataContext,
                                                              netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("controlOutputTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int controlOutputTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                               netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return serveTable("controlOutputTable", columns, reqinfo, requests);
}

int controlOutputTable_load(netsnmp_cache *, void *)
{
    std::puts("controlOutputTable_load()");
    if (!canLoad("controlOutputTable", &KvAgent::talControlOutputTableData, "talControlOutputTableData"))
        return -1;
    refillControlOutputTableEntries();
    return 0;
}

void controlOutputTable_free(netsnmp_cache *, void *)
{
    std::puts("controlOutputTable_free()");
}

int handle_controlOutputCount(netsnmp_mib_handler *, netsnmp_handler_registration *,
                              netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return serveInteger("handle_controlOutputCount", rows.count(), reqinfo, requests);
}

void refillControlOutputTableEntries()
{
    std::puts("copyTalControlOutputTableData()\nrefillControlOutputTableEntries()");
    rows.refill(
        talRecord(&KvAgent::talControlOutputTableData),
        [](ControlOutputTableRow &row, const ControlOutputRecord &record) { row.state = record.status[row.source]; });
}

void controlOutputTable_createEntry()
{
    std::puts("controlOutputTable_createEntry()");
}

void controlOutputTable_removeEntry()
{
    std::puts("controlOutputTable_removeEntry()");
}
