// entPhysicalTable: what the device consists of. What it does not know of itself is empty.
#include "agent/modules.h"
#include "agent/standard/entities.h"

#include <algorithm>

namespace {
constexpr oid noType[] = {0, 0};
constexpr std::uint32_t notReplaceable = 2;
constexpr char unknownDate[8] = {};

const EntityRow &entity(const TableRow &row)
{
    return static_cast<const EntityRow &>(row);
}

/// A text of the device, which the chassis has, and only after the application has filled the record.
template <InfoText InfoData::*field>
Cell chassisText(const TableRow &row)
{
    if (row.index != chassisIndex || kvAgent->infoData == nullptr)
        return {"", 0};
    const InfoText &text = kvAgent->infoData->*field;
    return {text.text, std::min<std::size_t>(text.length, sizeof(text.text))};
}

Cell name(const TableRow &row)
{
    return row.index == chassisIndex ? chassisText<&InfoData::modelType>(row) : cellOf(row.description);
}

Cell position(const TableRow &row)
{
    return {&entity(row).position, sizeof(entity(row).position)};
}

Cell noText(const TableRow &)
{
    return {"", 0};
}

// clang-format off
constexpr Column columns[] = {
    notAccessible,
    {ASN_OCTET_STR, name},                                                                  // entPhysicalDescr
    {ASN_OBJECT_ID, [](const TableRow &) { return Cell{noType, sizeof(noType)}; }},
    {ASN_INTEGER,   [](const TableRow &row) { return cellOf(entity(row).containedIn); }},
    {ASN_INTEGER,   [](const TableRow &row) { return cellOf(entity(row).physicalClass); }},
    {ASN_INTEGER,   position},
    {ASN_OCTET_STR, name},                                                                  // entPhysicalName
    {ASN_OCTET_STR, chassisText<&InfoData::deviceTreeVersion>},                             // entPhysicalHardwareRev
    {ASN_OCTET_STR, chassisText<&InfoData::packageVersion>},                                // entPhysicalFirmwareRev
    {ASN_OCTET_STR, chassisText<&InfoData::kernelVersion>},                                 // entPhysicalSoftwareRev
    {ASN_OCTET_STR, noText},                                                                // entPhysicalSerialNum
    {ASN_OCTET_STR, noText},                                                                // entPhysicalMfgName
    {ASN_OCTET_STR, chassisText<&InfoData::modelType>},                                     // entPhysicalModelName
    {ASN_OCTET_STR, noText},                                                                // entPhysicalAlias
    {ASN_OCTET_STR, noText},                                                                // entPhysicalAssetID
    {ASN_INTEGER,   [](const TableRow &) { return cellOf(notReplaceable); }},               // entPhysicalIsFRU
    {ASN_OCTET_STR, [](const TableRow &) { return Cell{unknownDate, sizeof(unknownDate)}; }},
    {ASN_OCTET_STR, noText},                                                                // entPhysicalUris
    {ASN_OCTET_STR, noText},                                                                // entPhysicalUUID
};

Index *getFirst(void **l, void **d, Index *i, Iterator *) { return firstRow(entPhysicalTable, l, d, i); }
Index *getNext(void **l, void **d, Index *i, Iterator *) { return nextRow(entPhysicalTable, l, d, i); }
int handle(Handler *, Registration *, Info *i, Request *r) { return serveTable(entPhysicalTable, i, r); }
int load(Cache *, void *) { return 0; } // the entities never change
void free(Cache *, void *) {}
// clang-format on
} // namespace

constexpr TableModule entPhysicalTable = {
    .name = "entPhysicalTable",
    .object = {{1, 3, 6, 1, 2, 1, 47, 1, 1, 1}, 10},
    .columns = columns,
    .rowSets = {},
    .rows = &entityRows,
    .record = {},
    .refill = nullptr,
    .hooks = {handle, getFirst, getNext, load, free, nullptr, nullptr},
};
