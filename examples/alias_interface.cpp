// Gives an interface further addresses, changes them, and takes them away again.
//
//     alias_interface add    eth0 eth0:1 192.0.2.7        with netmask and broadcast address of eth0
//     alias_interface change eth0 eth0:1 192.0.2.8 255.255.255.0 192.0.2.255
//     alias_interface delete eth0 eth0:1
//
// For change, 0.0.0.0 asks for nothing, and 1.0.0.0 takes the value of the main interface. With a new address the
// kernel chooses netmask and broadcast address anew, if they are not given. Needs CAP_NET_ADMIN.
//
// A request that the kernel refuses ends a process that uses the library as it is. This one goes on: it brings a
// failure action of its own.

#include <TarnSocketIO/TarnSocketIO.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

namespace {

using IPv4::IPAddress;
using TarnSocketIO::IfConfig;

/// Assertions that have failed.
int failures = 0;

IPAddress Parse(const char* text) {
    try {
        return text;
    } catch (const std::exception& error) {
        throw std::invalid_argument(std::string("\"") + text + "\" is no address: " + error.what());
    }
}

int Add(char** arguments) {
    TarnSocketIO::AddAliasIf add(arguments[0], arguments[1], Parse(arguments[2]), true);
    return IfConfig().DoIoCtl(add);
}

int Change(char** arguments) {
    TarnSocketIO::ChangeAliasIf change(arguments[0], arguments[1], Parse(arguments[2]), Parse(arguments[3]),
                                       Parse(arguments[4]));
    return IfConfig().DoIoCtl(change);
}

int Delete(char** arguments) {
    TarnSocketIO::DelAliasIf del(arguments[0], arguments[1]);
    return IfConfig().DoIoCtl(del);
}

struct Command {
    const char* name;
    int arguments;
    int (*run)(char** arguments);
};

constexpr Command commands[] = {{"add", 3, Add}, {"change", 5, Change}, {"delete", 2, Delete}};

}  // namespace

// In place of the companion runtime's: one line about what has failed, and no end of the process.
void AssertFailStdErrBase::ReportWhat(const char* /*banner*/, const char* function, const char* file, unsigned int line,
                                      const char* expression, const char* /*extra_text*/, int /*extra_level*/) {
    std::fprintf(stderr, "alias_interface: %s does not hold in %s (%s:%u)", expression, function, file, line);
}

void AssertFailStdErrAbort::DoAction() {
    std::fprintf(stderr, "\n");
    ++failures;
}

int main(int argc, char* argv[]) {
    for (const Command& command : commands) {
        if (argc != command.arguments + 2 || std::strcmp(argv[1], command.name) != 0) {
            continue;
        }
        try {
            const int error = command.run(argv + 2);
            if (error != 0) {
                std::fprintf(stderr, "alias_interface: %s of %s failed: %s\n", command.name, argv[3],
                             std::strerror(error));
            }
            // A setting that does not read back as it was set is no error of the kernel's, but it has been reported.
            return error == 0 && failures == 0 ? 0 : 1;
        } catch (const std::invalid_argument& error) {
            std::fprintf(stderr, "alias_interface: %s\n", error.what());
            return 2;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "alias_interface: %s\n", error.what());
            return 1;
        }
    }
    std::fprintf(stderr,
                 "usage: alias_interface add MAIN ALIAS ADDRESS\n"
                 "       alias_interface change MAIN ALIAS ADDRESS NETMASK BROADCAST\n"
                 "       alias_interface delete MAIN ALIAS\n");
    return 2;
}
