// E.3.8: line end transponders (LETs), one table per channel, both served by one handler.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>
#include <cstring>

namespace {
struct LetTableRow : TableRow {
    std::uint32_t letStatus = 1;
    RowText<sizeof(LetEntry::softwareVersion)> softwareVersion = rowText<sizeof(LetEntry::softwareVersion)>("Unknown");
    RowText<sizeof(LetEntry::hardwareVersion)> hardwareVersion = rowText<sizeof(LetEntry::hardwareVersion)>("Unknown");
    std::uint32_t voltage = 0;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&LetTableRow::index>},
    {ASN_OCTET_STR, cell<&LetTableRow::description>}, // fixed: the data service's own description is not served
    {ASN_INTEGER,   cell<&LetTableRow::letStatus>},
    {ASN_OCTET_STR, cell<&LetTableRow::softwareVersion>},
    {ASN_OCTET_STR, cell<&LetTableRow::hardwareVersion>},
    {ASN_GAUGE,     cell<&LetTableRow::voltage>},
};
// clang-format on

constexpr auto channel1CountOid = enterpriseOid(3, 8, 1, 1);
constexpr auto channel1TableOid = enterpriseOid(3, 8, 1, 2);
constexpr auto channel2CountOid = enterpriseOid(3, 8, 2, 1);
constexpr auto channel2TableOid = enterpriseOid(3, 8, 2, 2);

Rows<LetTableRow, letsPerChannel> channelRows[ampChannels];

void useRows(std::uint32_t letChannel)
{
    if (!letModels.contains(kvAgent->modelNumber))
        return;
    for (std::uint32_t let = 1; let <= letsPerChannel; ++let) {
        char description[32];
        std::snprintf(description, sizeof(description), "LET %u Channel %u", let, letChannel);
        channelRows[letChannel - 1].use(let, description, let - 1);
    }
}

template <std::size_t size>
std::string_view textOf(const char (&buffer)[size])
{
    return {buffer, strnlen(buffer, size)};
}

// Takes what was stored since the last copy. A version that has never arrived leaves "Unknown" in place.
void copyChanges(LetTableRow &row, LetEntry &let)
{
    if (let.changed.status != 0)
        row.letStatus = let.letStatus;
    if (let.changed.softwareVersion != 0)
        setText(row.softwareVersion, textOf(let.softwareVersion));
    if (let.changed.hardwareVersion != 0)
        setText(row.hardwareVersion, textOf(let.hardwareVersion));
    if (let.changed.voltage != 0)
        row.voltage = let.letVoltage;
    let.changed = {};
}
} // namespace

void init_letChannelTables()
{
    initialize_table_letChannel1Table();
    initialize_table_letChannel2Table();
    registerScalar("letChannel1Count", channel1CountOid, handle_letChannel1Count);
    registerScalar("letChannel2Count", channel2CountOid, handle_letChannel2Count);
}

void initialize_table_letChannel1Table()
{
    std::puts("letChannel1Table: initialize_table_letChannel1Table()");
    registerTable("letChannel1Table", channel1TableOid, std::size(columns),
                  {letChannelTable_handler, letChannel1Table_get_first_data_point, letChannel1Table_get_next_data_point,
                   letChannel1Table_load, letChannelTable_free});
    useRows(1);
}

void initialize_table_letChannel2Table()
{
    std::puts("letChannel2Table: initialize_table_letChannel2Table()");
    registerTable("letChannel2Table", channel2TableOid, std::size(columns),
                  {letChannelTable_handler, letChannel2Table_get_first_data_point, letChannel2Table_get_next_data_point,
                   letChannel2Table_load, letChannelTable_free});
    useRows(2);
}

netsnmp_variable_list *letChannel1Table_get_first_data_point(void **loopContext, void **dataContext,
                                                             netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    channelRows[0].rewind(loopContext);
    return letChannel1Table_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *letChannel1Table_get_next_data_point(void **loopContext, void **dataContext,
                                                            netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("letChannel1Table_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

netsnmp_variable_list *letChannel2Table_get_first_data_point(void **loopContext, void **dataContext,
                                                             netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    channelRows[1].rewind(loopContext);
    return letChannel2Table_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *letChannel2Table_get_next_data_point(void **loopContext, void **dataContext,
                                                            netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("letChannel2Table_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int letChannelTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                            netsnmp_request_info *requests)
{
    if (reqinfo != nullptr)
        std::printf("letChannelTable_handler()   Processing request (%d)\n", reqinfo->mode);
    return serveTable("letChannelTable", columns, reqinfo, requests);
}

int letChannel1Table_load(netsnmp_cache *, void *)
{
    std::puts("letChannel1Table_load()");
    if (!canLoad("letChannel1Table", &KvAgent::talLetChannelTableData, "talLetChannelTableData"))
        return -1;
    if (letModels.contains(kvAgent->modelNumber)) // a model without a row set has nothing to copy, and prints nothing
        refillLetChannelTableEntries(1);
    return 0;
}

int letChannel2Table_load(netsnmp_cache *, void *)
{
    std::puts("letChannel2Table_load()");
    if (!canLoad("letChannel2Table", &KvAgent::talLetChannelTableData, "talLetChannelTableData"))
        return -1;
    if (letModels.contains(kvAgent->modelNumber))
        refillLetChannelTableEntries(2);
    return 0;
}

void letChannelTable_free(netsnmp_cache *, void *)
{
    std::puts("letChannelTable_free()");
}

int handle_letChannel1Count(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                            netsnmp_request_info *requests)
{
    return serveInteger("handle_letChannel1Count", channelRows[0].count(), reqinfo, requests);
}

int handle_letChannel2Count(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                            netsnmp_request_info *requests)
{
    // Logs the first channel's name: intended.
    return serveInteger("handle_letChannel1Count", channelRows[1].count(), reqinfo, requests);
}

void refillLetChannelTableEntries(std::uint32_t letChannel)
{
    std::printf("copyTalLetChannelTableData() for letChannel: %u\n", letChannel);
    channelRows[letChannel - 1].refill(talRecord(&KvAgent::talLetChannelTableData),
                                       [letChannel](LetTableRow &row, LetRecord &record) {
                                           copyChanges(row, record.lets[letChannel - 1][row.source]);
                                       });
}

void letChannelTable_createEntry()
{
    std::puts("letChannelTable_createEntry()");
}

void letChannelTable_removeEntry()
{
    std::puts("letChannelTable_removeEntry()");
}
