// The physical entities: the chassis, its fans, and a sensor for each row of the voltage, temperature and fan tables.
#pragma once

#include "agent/tablecore.h"

/// The sensors of one table of the private MIB.
struct SensorKind {
    std::uint32_t base; ///< row n of the table is the sensor base + n
    std::int32_t type;  ///< the numbers of entPhySensorType and the next two columns
    std::int32_t scale;
    std::int32_t precision;
    std::string_view unit;
    const TableModule *table;
    const Measured &(*measured)(const TableRow &row); ///< of the table
};

struct EntityRow : TableRow {
    std::uint32_t containedIn; ///< index of another entity, 0 for none
    std::uint32_t physicalClass;
    std::int32_t position; ///< from 1, among the entities of its class in the same container; -1 without a container
};

struct SensorRow : TableRow {
    const SensorKind *kind;
    const TableRow *origin; ///< the row of the private table that has the value
};

/// Rows in use, appended with ascending indexes.
template <class Row, std::size_t size>
class RowPool : public RowChain {
public:
    RowPool()
        : RowChain([](RowChain &chain, std::size_t) -> TableRow & { return static_cast<RowPool &>(chain).next(); })
    {}

    Row &add(std::uint32_t index, const char *description)
    {
        const Line line{index, description, 0};
        use({&line, 1});
        return m_rows[count() - 1];
    }

private:
    TableRow &next() { return m_rows[count()]; }

    Row m_rows[size] = {};
};

inline constexpr std::uint32_t chassisIndex = 1;
inline constexpr std::size_t maxSensors = voltageSlots + tempRows + fanRows;

extern RowPool<EntityRow, 1 + fanRows + maxSensors> entityRows;
extern RowPool<SensorRow, maxSensors> sensorRows;

extern const TableModule entPhysicalTable, entPhySensorTable;

/// Makes the entities of the rows that the private tables have. Call once.
void makeEntities();

/// Copies the latest values into the rows of the private tables, which the sensors show.
void refillSensors();
