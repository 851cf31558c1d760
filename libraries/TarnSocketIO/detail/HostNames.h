#pragma once

#include <netinet/in.h>

#include <string>

namespace TarnSocketIO::detail {

/// The official name that the resolver has for an address, or the empty string. May take as long as a name server
/// takes to answer. Re-entrant; throws std::bad_alloc.
std::string HostNameOf(in_addr address);

}  // namespace TarnSocketIO::detail
