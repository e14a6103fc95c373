// The physical entities.
#include "agent/standard/entities.h"

#include "agent/modules.h"

namespace {
constexpr std::uint32_t fanClass = 7; // numbers of entPhysicalClass
constexpr std::uint32_t sensorClass = 8;
constexpr std::uint32_t chassisClass = 3;
constexpr std::uint32_t fanBase = 3000; // row n of the fan table is the fan fanBase + n

template <class Values>
const Values &valuesOf(const TableRow &row)
{
    return static_cast<const ValueRow<Values> &>(row).values;
}

const Measured &value(const TableRow &row)
{
    return valuesOf<Measured>(row);
}

const Measured &currentTemperature(const TableRow &row)
{
    return valuesOf<TempRow>(row).current;
}

// clang-format off
constexpr SensorKind sensorKinds[] = { // type: voltsDC, celsius, rpm; scale: milli, units
    // base, type, scale, precision, unit
    {1000,  4, 8, 0, "millivolts DC",          &voltageTable, value},
    {2000,  8, 9, 1, "degrees Celsius",        &tempTable,    currentTemperature},
    {3100, 10, 9, 0, "revolutions per minute", &fanTable,     value},
};
// clang-format on
constexpr const SensorKind &fanSensors = sensorKinds[2];

void addEntity(std::uint32_t index, const char *description, std::uint32_t physicalClass, std::uint32_t containedIn)
{
    std::int32_t position = containedIn == 0 ? -1 : 1;
    for (const TableRow *row = entityRows.first(); row != nullptr; row = row->next) {
        const auto &other = static_cast<const EntityRow &>(*row);
        position += static_cast<int>(other.containedIn == containedIn && other.physicalClass == physicalClass);
    }
    EntityRow &entity = entityRows.add(index, description);
    entity.physicalClass = physicalClass;
    entity.containedIn = containedIn;
    entity.position = position;
}

void addSensors(const SensorKind &kind)
{
    for (const TableRow *row = kind.table->rows->first(); row != nullptr; row = row->next) {
        const std::uint32_t index = kind.base + row->index;
        addEntity(index, row->description.text, sensorClass,
                  &kind == &fanSensors ? fanBase + row->index : chassisIndex);
        SensorRow &sensor = sensorRows.add(index, row->description.text);
        sensor.kind = &kind;
        sensor.origin = row;
    }
}
} // namespace

RowPool<EntityRow, 1 + fanRows + maxSensors> entityRows;
RowPool<SensorRow, maxSensors> sensorRows;

void makeEntities()
{
    addEntity(chassisIndex, "", chassisClass, 0);
    for (const SensorKind &kind : sensorKinds) {
        if (&kind == &fanSensors) {
            for (const TableRow *row = fanTable.rows->first(); row != nullptr; row = row->next)
                addEntity(fanBase + row->index, row->description.text, fanClass, chassisIndex);
        }
        addSensors(kind);
    }
}

void refillSensors()
{
    for (const SensorKind &kind : sensorKinds)
        copyRecord(*kind.table);
}
