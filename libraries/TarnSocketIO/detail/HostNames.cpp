#include <TarnSocketIO/detail/HostNames.h>

#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace TarnSocketIO::detail {

std::string HostNameOf(in_addr address) {
    constexpr std::size_t largest_entry = 65536;
    for (std::vector<char> storage(1024); storage.size() <= largest_entry; storage.resize(storage.size() * 2)) {
        hostent entry{};
        hostent* found = nullptr;
        int resolver_error = 0;
        const int result = ::gethostbyaddr_r(&address, sizeof address, AF_INET, &entry, storage.data(), storage.size(),
                                             &found, &resolver_error);
        if (result != ERANGE) {
            return found != nullptr && found->h_name != nullptr ? found->h_name : "";
        }
    }
    return "";
}

}  // namespace TarnSocketIO::detail
