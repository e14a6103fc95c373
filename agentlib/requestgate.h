// The request gate: a filter for the agent library's table helpers.
#pragma once

#include "agentlib/netsnmp.h"

/// A handler that passes on the names of a GETNEXT or GETBULK one at a time, so that each gets the same answer as
/// alone. With several names the helpers go wrong when one is outside the columns: they answer it in vain, loop
/// endlessly past the last column, or write to missing table information. The names of a GET are passed on together.
/// The caller injects it in front of every handler that must not receive several names. Null when out of memory.
/// `cache`: the cache behind the gate, or null. The gate disables its handler, a tenth of a request, while the last
/// load stays fresh for another second.
netsnmp_mib_handler *makeRequestGate(netsnmp_cache *cache);
