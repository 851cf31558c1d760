#include <TarnSocketIO/detail/HostNames.h>

#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

namespace TarnSocketIO::detail {

namespace {

/// Asks the resolver with a storage that grows until the entry fits.
///
/// @param ask  called with entry, storage, its size, the entry found and the resolver's error; returns ERANGE if the
///             storage is too small.
/// @param use  called with the entry that was found.
template <class Ask, class Use>
void LookUp(Ask ask, Use use) {
    constexpr std::size_t largest_entry = 65536;
    for (std::vector<char> storage(1024); storage.size() <= largest_entry; storage.resize(storage.size() * 2)) {
        hostent entry{};
        hostent* found = nullptr;
        int resolver_error = 0;
        if (ask(&entry, storage.data(), storage.size(), &found, &resolver_error) != ERANGE) {
            if (found != nullptr) {
                use(*found);
            }
            return;
        }
    }
}

}  // namespace

std::string HostNameOf(in_addr address) {
    std::string name;
    LookUp([&](auto... rest) { return ::gethostbyaddr_r(&address, sizeof address, AF_INET, rest...); },
           [&](const hostent& found) { name = found.h_name != nullptr ? found.h_name : ""; });
    return name;
}

std::vector<in_addr> AddressesOf(const char* name) {
    std::vector<in_addr> addresses;
    LookUp([&](auto... rest) { return ::gethostbyname_r(name, rest...); },
           [&](const hostent& found) {
               if (found.h_addrtype != AF_INET) {
                   return;
               }
               for (char** next = found.h_addr_list; *next != nullptr; ++next) {
                   std::memcpy(&addresses.emplace_back(), *next, sizeof(in_addr));
               }
           });
    return addresses;
}

}  // namespace TarnSocketIO::detail
