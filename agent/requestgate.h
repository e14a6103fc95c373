// What stands in front of the agent library's table helpers.
#pragma once

#include "agent/netsnmp.h"

/// A handler that hands on the names of a GETNEXT or GETBULK one at a time, so that each gets the answer that it gets
/// alone. Together, a name outside the columns would mislead the helpers about the others: they answer it in vain, run
/// past the last column for ever, or write where no table information is. The names of a GET are handed on together.
/// The caller injects it in front of everything that may not see several names. Null when out of memory.
netsnmp_mib_handler *makeRequestGate();
