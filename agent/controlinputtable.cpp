// E.3.9: control inputs.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line ownLines[] = { // on every model
    { 1, "Control Input 1",  0},
    { 2, "Control Input 2",  1},
    { 3, "Control Input 3",  2},
    { 4, "Control Input 4",  3},
    { 5, "Control Input 5",  4},
    { 6, "Control Input 6",  5},
};
constexpr Line expanderLines[] = { // on stations with expanders
    { 7, "External Control Input 1",  6},
    { 8, "External Control Input 2",  7},
    { 9, "External Control Input 3",  8},
    {10, "External Control Input 4",  9},
    {11, "External Control Input 5", 10},
    {12, "External Control Input 6", 11},
    {13, "External Control Input 7", 12},
    {14, "External Control Input 8", 13},
};
// clang-format on
static_assert(goodLines(ownLines, controlInputRows) && goodLines(expanderLines, controlInputRows));

struct ControlInputTableRow : TableRow {
    std::uint32_t state = 1;
    std::uint32_t monitored = 1;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&ControlInputTableRow::index>},
    {ASN_OCTET_STR, cell<&ControlInputTableRow::description>},
    {ASN_INTEGER,   cell<&ControlInputTableRow::state>},
    {ASN_INTEGER,   cell<&ControlInputTableRow::monitored>},
};
// clang-format on

constexpr auto countOid = enterpriseOid(3, 9, 1);
constexpr auto tableOid = enterpriseOid(3, 9, 2);

Rows<ControlInputTableRow, controlInputRows> rows;
} // namespace

void init_controlInputTable()
{
    initialize_table_controlInputTable();
    std::puts("controlInputCount Initializing");
    registerScalar("controlInputCount", countOid, handle_controlInputCount);
}

void initialize_table_controlInputTable()
{
    std::puts("controlInputTable: initialize_table_controlInputTable()");
    registerTable("controlInputTable", tableOid, std::size(columns),
                  {controlInputTable_handler, controlInputTable_get_first_data_point,
                   controlInputTable_get_next_data_point, controlInputTable_load, controlInputTable_free});
    rows.use(ownLines);
    if (hasExpanders(kvAgent->modelText))
        rows.use(expanderLines);
}

netsnmp_variable_list *controlInputTable_get_first_data_point(void **loopContext, void **dataContext,
                                                              netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return controlInputTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *controlInputTable_get_next_data_point(void **loopContext, void **dataContext,
                                                             netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("controlInputTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int controlInputTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                              netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return serveTable("controlInputTable", columns, reqinfo, requests);
}

int controlInputTable_load(netsnmp_cache *, void *)
{
    std::puts("controlInputTable_load()");
    if (!canLoad("controlInputTable", &KvAgent::talControlInputTableData, "talControlInputTableData"))
        return -1;
    refillControlInputTableEntries();
    return 0;
}

void controlInputTable_free(netsnmp_cache *, void *)
{
    std::puts("controlInputTable_free()");
}

int handle_controlInputCount(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                             netsnmp_request_info *requests)
{
    return serveInteger("handle_controlInputCount", rows.count(), reqinfo, requests);
}

void refillControlInputTableEntries()
{
    std::puts("copyTalControlInputTableData()\nrefillControlInputTableEntries()");
    rows.refill(talRecord(&KvAgent::talControlInputTableData),
                [](ControlInputTableRow &row, const ControlInputRecord &record) {
                    row.state = record.rows[row.source].status;
                    row.monitored = record.rows[row.source].monitored;
                });
}

void controlInputTable_createEntry()
{
    std::puts("controlInputTable_createEntry()");
}

void controlInputTable_removeEntry()
{
    std::puts("controlInputTable_removeEntry()");
}
