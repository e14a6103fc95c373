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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&AmpChannelTableRow::index>},
    {ASN_OCTET_STR, cell<&AmpChannelTableRow::description>},
    {ASN_INTEGER,   cell<&AmpChannelTableRow::channelStatus>},
    {ASN_INTEGER,   cell<&AmpChannelTableRow::lineState>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 7, 3);
constexpr auto countOid = enterpriseOid(3, 7, 1);
constexpr auto ampTypeOid = enterpriseOid(3, 7, 2);

void copy(AmpChannelTableRow &row, const AmpChannelRecord &record)
{
    row.channelStatus = record.rows[row.source].status;
    row.lineState = record.rows[row.source].lineState;
}

Rows<AmpChannelTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "ampChannelTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_ampChannelCount", countOid, handle_ampChannelCount},
    .record = recordSource<&KvAgent::talAmpChannelTableData, copy>("talAmpChannelTableData"),
    .refill = refillAmpChannelTableEntries,
    .hooks = {ampChannelTable_handler, ampChannelTable_get_first_data_point, ampChannelTable_get_next_data_point,
              ampChannelTable_load, ampChannelTable_free},
};

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
    registerScalar(table.count);
    ampType = ampTypeOfModel(*kvAgent);
    registerScalar({"handle_ampType", ampTypeOid, handle_ampType});
}

// clang-format off
void initialize_table_ampChannelTable() { initializeTable(table); }
Index *ampChannelTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *ampChannelTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int ampChannelTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int ampChannelTable_load(Cache *, void *)
{
    if (!beginLoad(table))
        return -1;
    if (twoChannelModels.contains(kvAgent->modelNumber))
        refillAmpChannelTableEntries();
    return 0;
}
void ampChannelTable_free(Cache *, void *) { freeTable(table); }
int handle_ampChannelCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(table, i, r); }
int handle_ampType(Handler *, Registration *, Info *i, Request *r) { return serveInteger("handle_ampType", ampType, i, r); }
void refillAmpChannelTableEntries()
{
    beginRefill(table);
    if (kvAgent != nullptr && twoChannelModels.contains(kvAgent->modelNumber))
        copyRecord(table); // the single-output models have no channel data, their row stays as it started
}
void ampChannelTable_createEntry() { std::puts("ampChannelTable_createEntry()"); }
void ampChannelTable_removeEntry() { std::puts("ampChannelTable_removeEntry()"); }
// clang-format on
