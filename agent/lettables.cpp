// E.3.8: line end transponders (LETs), one table per channel, both served by one handler.
#include "agent/modules.h"

#include <cstdio>
#include <cstring>

namespace {
// clang-format off
constexpr Line lines1[] = {
    { 1, "LET 1 Channel 1",  0}, { 2, "LET 2 Channel 1",  1}, { 3, "LET 3 Channel 1",  2}, { 4, "LET 4 Channel 1",  3},
    { 5, "LET 5 Channel 1",  4}, { 6, "LET 6 Channel 1",  5}, { 7, "LET 7 Channel 1",  6}, { 8, "LET 8 Channel 1",  7},
    { 9, "LET 9 Channel 1",  8}, {10, "LET 10 Channel 1", 9},
};
constexpr Line lines2[] = {
    { 1, "LET 1 Channel 2",  0}, { 2, "LET 2 Channel 2",  1}, { 3, "LET 3 Channel 2",  2}, { 4, "LET 4 Channel 2",  3},
    { 5, "LET 5 Channel 2",  4}, { 6, "LET 6 Channel 2",  5}, { 7, "LET 7 Channel 2",  6}, { 8, "LET 8 Channel 2",  7},
    { 9, "LET 9 Channel 2",  8}, {10, "LET 10 Channel 2", 9},
};
constexpr RowSet rowSets1[] = {{letModels, lines1}};
constexpr RowSet rowSets2[] = {{letModels, lines2}};

using VersionText = RowText<sizeof(LetEntry::softwareVersion)>;
static_assert(sizeof(LetEntry::hardwareVersion) == sizeof(VersionText::text));
struct LetValues {
    std::uint32_t letStatus = 1;
    VersionText softwareVersion = rowText<sizeof(VersionText::text)>("Unknown");
    VersionText hardwareVersion = softwareVersion;
    std::uint32_t voltage = 0;
};

constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>}, // fixed: the data service's description is not served
    {ASN_INTEGER,   cell<&LetValues::letStatus>},
    {ASN_OCTET_STR, cell<&LetValues::softwareVersion>},
    {ASN_OCTET_STR, cell<&LetValues::hardwareVersion>},
    {ASN_GAUGE,     cell<&LetValues::voltage>},
};
// clang-format on

template <std::size_t size>
std::string_view textOf(const char (&buffer)[size])
{
    return {buffer, strnlen(buffer, size)};
}

/// Copies the values stored since the last copy. A version that has never arrived stays "Unknown".
template <std::size_t channel>
void copyLet(TableRow &row)
{
    LetValues &values = static_cast<ValueRow<LetValues> &>(row).values;
    LetEntry &let = kvAgent->talLetChannelTableData->lets[channel][row.source];
    if (let.changed.status != 0)
        values.letStatus = let.letStatus;
    if (let.changed.softwareVersion != 0)
        setText(values.softwareVersion, textOf(let.softwareVersion));
    if (let.changed.hardwareVersion != 0)
        setText(values.hardwareVersion, textOf(let.hardwareVersion));
    if (let.changed.voltage != 0)
        values.voltage = let.letVoltage;
    let.changed = {};
}

template <std::size_t channel>
constexpr RecordSource letSource = {"talLetChannelTableData", [] { return kvAgent->talLetChannelTableData != nullptr; },
                                    copyLet<channel>};

Rows<LetValues, rowSets1, letsPerChannel> rows1(LetValues{});
Rows<LetValues, rowSets2, letsPerChannel> rows2(LetValues{});

// clang-format off
void initialize_table_letChannel1Table() { initializeTable(letChannel1Table); }
void initialize_table_letChannel2Table() { initializeTable(letChannel2Table); }
Index *letChannel1Table_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(letChannel1Table, l, d, i); }
Index *letChannel1Table_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(letChannel1Table, l, d, i); }
Index *letChannel2Table_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(letChannel2Table, l, d, i); }
Index *letChannel2Table_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(letChannel2Table, l, d, i); }
int letChannelTable_handler(Handler *, Registration *, Info *i, Request *r)
{
    if (i != nullptr)
        std::printf("letChannelTable_handler()   Processing request (%d)\n", i->mode);
    return serveTable(letChannel1Table, i, r, "letChannelTable"); // both have the same columns
}
int letChannel1Table_load(Cache *, void *) { return loadTable(letChannel1Table); }
int letChannel2Table_load(Cache *, void *) { return loadTable(letChannel2Table); }
void letChannelTable_free(Cache *, void *) { std::puts("letChannelTable_free()"); }
int handle_letChannel1Count(Handler *, Registration *, Info *i, Request *r) { return serveCount(letChannel1Table, i, r); }
int handle_letChannel2Count(Handler *, Registration *, Info *i, Request *r)
{
    return serveInteger(letChannel1Table.count.handlerName, rows2.count(), i, r); // the first channel's name: intended
}
void letChannelTable_createEntry() { std::puts("letChannelTable_createEntry()"); }
void letChannelTable_removeEntry() { std::puts("letChannelTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule letChannel1Table = {
    .name = "letChannel1Table",
    .object = enterpriseOid(3, 8, 1, 2),
    .columns = columns,
    .rowSets = rowSets1,
    .rows = &rows1,
    .count = {"handle_letChannel1Count", enterpriseOid(3, 8, 1, 1), handle_letChannel1Count},
    .record = letSource<0>,
    .refill = [] { refillLetChannelTableEntries(1); },
    .hooks = {letChannelTable_handler, letChannel1Table_get_first_data_point, letChannel1Table_get_next_data_point,
              letChannel1Table_load, letChannelTable_free, letChannelTable_createEntry, letChannelTable_removeEntry},
};

constexpr TableModule letChannel2Table = {
    .name = "letChannel2Table",
    .object = enterpriseOid(3, 8, 2, 2),
    .columns = columns,
    .rowSets = rowSets2,
    .rows = &rows2,
    .count = {"handle_letChannel2Count", enterpriseOid(3, 8, 2, 1), handle_letChannel2Count},
    .record = letSource<1>,
    .refill = [] { refillLetChannelTableEntries(2); },
    .hooks = {letChannelTable_handler, letChannel2Table_get_first_data_point, letChannel2Table_get_next_data_point,
              letChannel2Table_load, letChannelTable_free, letChannelTable_createEntry, letChannelTable_removeEntry},
};

void refillLetChannelTableEntries(std::uint32_t letChannel)
{
    std::printf("copyTalLetChannelTableData() for letChannel: %u\n", letChannel);
    copyRecord(letChannel == 1 ? letChannel1Table : letChannel2Table);
}

void init_letChannelTables()
{
    initialize_table_letChannel1Table();
    initialize_table_letChannel2Table();
    registerScalar(letChannel1Table.count);
    registerScalar(letChannel2Table.count);
}
