// The IETF's sensor tables, beside the private MIB: ENTITY-MIB (RFC 6933) and ENTITY-SENSOR-MIB (RFC 3433).
#pragma once

/// Handles "kvStandardSensors yes" in the agent library's configuration file of `application`. Call between
/// init_agent() and init_snmp().
void readStandardSensorsSetting(const char *application);

/// Registers entPhysicalTable, entPhySensorTable and entLastChangeTime if the configuration has asked for them. Call
/// after init_snmp() and after the private tables have their rows.
void registerStandardSensors();
