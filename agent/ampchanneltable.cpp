// E.3.7: amplifier channels and the amplifier type.
#include "agent/modules.h"

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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   cell<&AmpChannelRow::status>},
    {ASN_INTEGER,   cell<&AmpChannelRow::lineState>},
};
// clang-format on

Rows<AmpChannelRow, rowSets, ampChannels> rows({.status = 1, .lineState = 1, .ampEnable = 0, .ampMonitorStatus = 0});

std::uint32_t ampType = 1; // set once, at start

std::uint32_t ampTypeOfModel(const KvAgent &agent)
{
    if (twoChannelModels.contains(agent.modelNumber))
        return agent.ampType;
    return singleOutputModels.contains(agent.modelNumber) ? 2 : 1;
}

// clang-format off
void initialize_table_ampChannelTable() { initializeTable(ampChannelTable); }
Index *ampChannelTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(ampChannelTable, l, d, i); }
Index *ampChannelTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(ampChannelTable, l, d, i); }
int ampChannelTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(ampChannelTable, i, r); }
void refillAmpChannelTableEntries()
{
    beginRefill(ampChannelTable);
    if (kvAgent != nullptr && twoChannelModels.contains(kvAgent->modelNumber))
        copyRecord(ampChannelTable); // single-output models have no channel data; their row keeps its start value
}
int ampChannelTable_load(Cache *, void *)
{
    if (!beginLoad(ampChannelTable))
        return -1;
    if (twoChannelModels.contains(kvAgent->modelNumber))
        refillAmpChannelTableEntries();
    return 0;
}
void ampChannelTable_free(Cache *, void *) { freeTable(ampChannelTable); }
int handle_ampChannelCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(ampChannelTable, i, r); }
void ampChannelTable_createEntry() { std::puts("ampChannelTable_createEntry()"); }
void ampChannelTable_removeEntry() { std::puts("ampChannelTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule ampChannelTable = {
    .name = "ampChannelTable",
    .object = enterpriseOid(3, 7, 3),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_ampChannelCount", enterpriseOid(3, 7, 1), handle_ampChannelCount},
    .record = recordSource<&KvAgent::talAmpChannelTableData, &AmpChannelRecord::rows>("talAmpChannelTableData"),
    .refill = refillAmpChannelTableEntries,
    .hooks = {ampChannelTable_handler, ampChannelTable_get_first_data_point, ampChannelTable_get_next_data_point,
              ampChannelTable_load, ampChannelTable_free, ampChannelTable_createEntry, ampChannelTable_removeEntry},
};

int handle_ampType(Handler *, Registration *, Info *info, Request *requests)
{
    return serveInteger("handle_ampType", ampType, info, requests);
}

void init_ampChannelTable()
{
    initialize_table_ampChannelTable();
    registerScalar(ampChannelTable.count);
    ampType = ampTypeOfModel(*kvAgent);
    registerScalar({"handle_ampType", enterpriseOid(3, 7, 2), handle_ampType});
}
