// The fields of the table records by name: "relay.3.delay", "voltage.17", "let.1.9.changed.status".
#pragma once

#include "device/tablerecords.h"

#include <QString>
#include <QStringList>

namespace recordfields {
/// What differs, as "NAME=VALUE" in the order of the records; texts between apostrophes.
QStringList changes(const TableRecords &before, const TableRecords &after);

/// Gives each number the value; texts and change flags stay.
void fill(TableRecords &records, std::uint32_t value);

/// Gives each number a different value, each text its name, and sets each change flag.
TableRecords distinct();

/// The field as changes() prints it. An unknown name ends the program.
QString valueOf(const TableRecords &records, const QString &name);

void set(TableRecords &records, const QString &name, const QString &value);
} // namespace recordfields
