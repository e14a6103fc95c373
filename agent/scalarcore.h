// What every scalar does alike: registration, the answer to a GET, the refusal of anything else.
#pragma once

#include "agent/netsnmp.h"

#include <cstddef>
#include <cstdint>
#include <span>

/// A value as the library takes it: its bytes and their number.
struct Cell {
    const void *data;
    std::size_t length;
};

/// Registers a read-only scalar; `object` is its OID without the .0.
void registerScalar(const char *name, std::span<const oid> object, Netsnmp_Node_Handler *handler);

/// Answers a GET with the value; any other mode is logged under the handler's name and refused.
int serveScalar(const char *handlerName, u_char type, Cell value, const netsnmp_agent_request_info *reqinfo,
                netsnmp_request_info *requests);

/// The same for an INTEGER.
int serveInteger(const char *handlerName, std::uint32_t value, const netsnmp_agent_request_info *reqinfo,
                 netsnmp_request_info *requests);
