// Object identifiers under the private enterprise arc E.
#pragma once

#include "agent/netsnmp.h"

#include <array>
#include <cstddef>

/// E followed by the arcs: enterpriseOid(3, 4, 2) is E.3.4.2.
template <class... Arcs>
constexpr std::array<oid, 7 + sizeof...(Arcs)> enterpriseOid(Arcs... arcs)
{
    return {1, 3, 6, 1, 4, 1, 52717, static_cast<oid>(arcs)...};
}
