// The code common to all scalars: registration, the answer to a GET, the refusal of other requests.
#pragma once

#include "agent/enterprise.h"
#include "agentlib/netsnmp.h"

#include <cstddef>
#include <cstdint>

/// A value in the library's form: its bytes and their number.
struct Cell {
    const void *data;
    std::size_t length;
};

/// A read-only scalar. Its object's name is the handler's without "handle_".
struct Scalar {
    const char *handlerName;
    Oid object; ///< without the .0
    Netsnmp_Node_Handler *handler;
};

void registerScalar(const Scalar &scalar);

/// Answers a GET with the value; any other mode is logged under the handler's name and refused.
int serveScalar(const char *handlerName, u_char type, Cell value, const netsnmp_agent_request_info *info,
                netsnmp_request_info *requests);

/// The same for an INTEGER.
int serveInteger(const char *handlerName, std::uint32_t value, const netsnmp_agent_request_info *info,
                 netsnmp_request_info *requests);
