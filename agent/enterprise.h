// Object identifiers under the private enterprise arc E.
#pragma once

#include "agentlib/netsnmp.h"

#include <cstddef>
#include <span>

struct Oid {
    oid arcs[11]; ///< as many as the longest object here has
    std::size_t length;

    constexpr operator std::span<const oid>() const { return {arcs, length}; }
};

/// E followed by the arcs: enterpriseOid(3, 4, 2) is E.3.4.2.
template <class... Arcs>
constexpr Oid enterpriseOid(Arcs... arcs)
{
    return {{1, 3, 6, 1, 4, 1, 52717, static_cast<oid>(arcs)...}, 7 + sizeof...(Arcs)};
}
