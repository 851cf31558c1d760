#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

namespace TarnSocketIO::detail {

// What the resolver knows. Re-entrant; each may take as long as a name server takes to answer, and throws
// std::bad_alloc.

/// The official name that the resolver has for an address, or the empty string.
std::string HostNameOf(in_addr address);

/// All IPv4 addresses of a name, in the resolver's order; empty if it has none.
std::vector<in_addr> AddressesOf(const char* name);

}  // namespace TarnSocketIO::detail
