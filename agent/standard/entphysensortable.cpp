// entPhySensorTable: the measured values of the private tables.
#include "agent/modules.h"
#include "agent/standard/entities.h"

#include <algorithm>

namespace {
constexpr std::int32_t overflow = 1000000000; // an EntitySensorValue at or above the limit
constexpr std::uint32_t noTime = 0;           // the data service does not report when it measured a value
constexpr std::uint32_t updateRate = 60000;   // milliseconds; the cache of the table

/// Holds a number that no row has, until the library has copied it.
Cell number(std::int64_t value)
{
    static std::int32_t held;
    held = static_cast<std::int32_t>(value);
    return {&held, sizeof(held)};
}

const SensorRow &sensor(const TableRow &row)
{
    return static_cast<const SensorRow &>(row);
}

const Measured &measured(const TableRow &row)
{
    return sensor(row).kind->measured(*sensor(row).origin);
}

Cell value(const TableRow &row)
{
    const Measured &latest = measured(row);
    return number(latest.reading == Reading::TooLarge ? overflow : std::min<std::int64_t>(latest.value, overflow));
}

Cell status(const TableRow &row)
{
    switch (measured(row).reading) {
    case Reading::Number:
    case Reading::TooLarge:
        return number(1); // ok
    case Reading::None:
        return number(2); // unavailable
    case Reading::NoNumber:
        break;
    }
    return number(3); // nonoperational
}

Cell unit(const TableRow &row)
{
    return {sensor(row).kind->unit.data(), sensor(row).kind->unit.size()};
}

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   [](const TableRow &row) { return number(sensor(row).kind->type); }},
    {ASN_INTEGER,   [](const TableRow &row) { return number(sensor(row).kind->scale); }},
    {ASN_INTEGER,   [](const TableRow &row) { return number(sensor(row).kind->precision); }},
    {ASN_INTEGER,   value},
    {ASN_INTEGER,   status},
    {ASN_OCTET_STR, unit},
    {ASN_TIMETICKS, [](const TableRow &) { return cellOf(noTime); }},
    {ASN_UNSIGNED,  [](const TableRow &) { return cellOf(updateRate); }},
};

Index *getFirst(void **l, void **d, Index *i, Iterator *) { return firstRow(entPhySensorTable, l, d, i); }
Index *getNext(void **l, void **d, Index *i, Iterator *) { return nextRow(entPhySensorTable, l, d, i); }
int handle(Handler *, Registration *, Info *i, Request *r) { return serveTable(entPhySensorTable, i, r); }
int load(Cache *, void *) { return refillSensors(), 0; }
void free(Cache *, void *) {}
// clang-format on
} // namespace

constexpr TableModule entPhySensorTable = {
    .name = "entPhySensorTable",
    .object = {{1, 3, 6, 1, 2, 1, 99, 1, 1}, 9},
    .columns = columns,
    .rowSets = {},
    .rows = &sensorRows,
    .record = {},
    .refill = refillSensors,
    .hooks = {handle, getFirst, getNext, load, free, nullptr, nullptr},
};
