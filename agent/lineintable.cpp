// E.3.6: line inputs and microphones.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lineInputs[] = {
    {1, "Line In 1",         0},
    {2, "Line In 2",         1},
};
constexpr Line microphones[] = { // other indices, the same record rows
    {3, "Microphone Extern", 0},
    {4, "Microphone Intern", 1},
};
constexpr RowSet rowSets[] = {
    {pilotToneModels,  lineInputs},
    {microphoneModels, microphones},
};
// clang-format on
static_assert(goodLines(rowSets, lineInRows));

struct LineInTableRow : TableRow {
    std::uint32_t lineInStatus = 0;
    std::uint32_t micStatus = 0;
    std::uint32_t monitoring = 1;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&LineInTableRow::index>},
    {ASN_INTEGER,   cell<&LineInTableRow::lineInStatus>},
    {ASN_INTEGER,   cell<&LineInTableRow::micStatus>},
    {ASN_OCTET_STR, cell<&LineInTableRow::description>},
    {ASN_INTEGER,   cell<&LineInTableRow::monitoring>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 6, 1);

Rows<LineInTableRow, highestIndex(rowSets)> rows;
} // namespace

void init_lineInTable()
{
    initialize_table_lineInTable();
}

void initialize_table_lineInTable()
{
    std::puts("lineInTable: initialize_table_lineInTable()");
    registerTable("lineInTable", tableOid, std::size(columns),
                  {lineInTable_handler, lineInTable_get_first_data_point, lineInTable_get_next_data_point,
                   lineInTable_load, lineInTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets))
        rows.use(rowSet->lines);
}

netsnmp_variable_list *lineInTable_get_first_data_point(void **loopContext, void **dataContext,
                                                        netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return lineInTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *lineInTable_get_next_data_point(void **loopContext, void **dataContext,
                                                       netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("lineInTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int lineInTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                        netsnmp_request_info *requests)
{
    return serveTable("lineInTable", columns, reqinfo, requests);
}

int lineInTable_load(netsnmp_cache *, void *)
{
    std::puts("lineInTable_load()");
    if (!canLoad("lineInTable", &KvAgent::talLineInTableData, "talLineInTableData"))
        return -1;
    if (rowSetOf(rowSets) != nullptr) // a model without a row set has nothing to copy, and prints nothing
        refillLineInTableEntries();
    return 0;
}

void lineInTable_free(netsnmp_cache *, void *)
{
    std::puts("lineInTable_free()");
}

void refillLineInTableEntries()
{
    std::puts("copyTalLineInTableData()\nrefillLineInTableEntries()");
    rows.refill(talRecord(&KvAgent::talLineInTableData), [](LineInTableRow &row, const LineInRecord &record) {
        const LineInRow &source = record.rows[row.source];
        row.lineInStatus = source.lineInStatus;
        row.micStatus = source.micStatus;
        row.monitoring = source.lineInMonitoring;
    });
}

void lineInTable_createEntry()
{
    std::puts("lineInTable_createEntry()");
}

void lineInTable_removeEntry()
{
    std::puts("lineInTable_removeEntry()");
}
