// E.3.7: amplifier channels and the amplifier type.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line twoChannels[] = {
    {1, "Channel 1", 0},
    {2, "Channel 2", 1},
};
constexpr Line singleOutput[] = {
    {1, "Brisel output", 0},
};
constexpr RowSet rowSets[] = {
    {twoChannelModels,   twoChannels, "VQ9"},
    {singleOutputModels, singleOutput},
};
// clang-format on
static_assert(goodLines(rowSets, ampChannels));

struct AmpChannelTableRow : TableRow {
    std::uint32_t channelStatus = 1;
    std::uint32_t lineState = 1;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&AmpChannelTableRow::index>},
    {ASN_OCTET_STR, cell<&AmpChannelTableRow::description>},
    {ASN_INTEGER,   cell<&AmpChannelTableRow::channelStatus>},
    {ASN_INTEGER,   cell<&AmpChannelTableRow::lineState>},
};
// clang-format on

constexpr auto countOid = enterpriseOid(3, 7, 1);
constexpr auto ampTypeOid = enterpriseOid(3, 7, 2);
constexpr auto tableOid = enterpriseOid(3, 7, 3);

Rows<AmpChannelTableRow, highestIndex(rowSets)> rows;

std::uint32_t ampType = 1; // set once, at start

std::uint32_t ampTypeOfModel(const KvAgent &agent)
{
    if (twoChannelModels.contains(agent.modelNumber))
        return agent.ampType;
    return singleOutputModels.contains(agent.modelNumber) ? 2 : 1;
}
} // namespace

void init_ampChannelTable()
{
    initialize_table_ampChannelTable();
    registerScalar("ampChannelCount", countOid, handle_ampChannelCount);
    ampType = ampTypeOfModel(*kvAgent);
    registerScalar("ampType", ampTypeOid, handle_ampType);
}

void initialize_table_ampChannelTable()
{
    std::puts("ampChannelTable: initialize_table_ampChannelTable()");
    registerTable("ampChannelTable", tableOid, std::size(columns),
                  {ampChannelTable_handler, ampChannelTable_get_first_data_point, ampChannelTable_get_next_data_point,
                   ampChannelTable_load, ampChannelTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets)) {
        rows.use(rowSet->lines);
        if (rowSet->logLabel != nullptr)
            std::printf("initAmpChannelTableModel() %s\n", rowSet->logLabel);
    }
}

netsnmp_variable_list *ampChannelTable_get_first_data_point(void **loopContext, void **dataContext,
                                                            netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return ampChannelTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *ampChannelTable_get_next_data_point(void **loopContext, void **dataContext,
                                                           netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("ampChannelTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int ampChannelTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                            netsnmp_request_info *requests)
{
    return serveTable("ampChannelTable", columns, reqinfo, requests);
}

int ampChannelTable_load(netsnmp_cache *, void *)
{
    std::puts("ampChannelTable_load()");
    if (!canLoad("ampChannelTable", &KvAgent::talAmpChannelTableData, "talAmpChannelTableData"))
        return -1;
    if (twoChannelModels.contains(kvAgent->modelNumber))
        refillAmpChannelTableEntries();
    return 0;
}

void ampChannelTable_free(netsnmp_cache *, void *)
{
    std::puts("ampChannelTable_free()");
}

int handle_ampChannelCount(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                           netsnmp_request_info *requests)
{
    return serveInteger("handle_ampChannelCount", rows.count(), reqinfo, requests);
}

int handle_ampType(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                   netsnmp_request_info *requests)
{
    return serveInteger("handle_ampType", ampType, reqinfo, requests);
}

void refillAmpChannelTableEntries()
{
    std::puts("copyTalAmpChannelTableData()\nrefillAmpChannelTableEntries()");
    if (kvAgent == nullptr || !twoChannelModels.contains(kvAgent->modelNumber))
        return; // the single-output models have no channel data, their row stays as it started
    rows.refill(talRecord(&KvAgent::talAmpChannelTableData),
                [](AmpChannelTableRow &row, const AmpChannelRecord &record) {
                    row.channelStatus = record.rows[row.source].status;
                    row.lineState = record.rows[row.source].lineState;
                });
}

void ampChannelTable_createEntry()
{
    std::puts("ampChannelTable_createEntry()");
}

void ampChannelTable_removeEntry()
{
    std::puts("ampChannelTable_removeEntry()");
}
