// One command-line tool for what the library does; written only against its installed headers.

#include <TarnSocketIO/Version.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "serve.h"

namespace {

struct Command {
    std::string_view name;
    const char* full_name;  // what its own complaints begin with
    int (*run)(int count, char* arguments[]);
};

constexpr Command commands[] = {
    {"serve", "tarnctl serve", Serve},
};

constexpr char usage[] =
    "usage: tarnctl COMMAND [option ...]\n"
    "\n"
    "  serve       send back to every TCP client what it sends\n"
    "\n"
    "  --help      this text; after a command, its own\n"
    "  --version   the library's version\n";

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 2) {
        std::fputs(usage, stderr);
        return 2;
    }
    const std::string_view word = argv[1];
    if (word == "--help" || word == "-h") {
        std::fputs(usage, stdout);
        return 0;
    }
    if (word == "--version") {
        std::puts("tarnctl " TARN_SOCKETIO_VERSION);
        return 0;
    }
    for (const Command& command : commands) {
        if (command.name == word) {
            std::string full_name = command.full_name;
            argv[1] = full_name.data();
            return command.run(argc - 1, argv + 1);
        }
    }
    std::fprintf(stderr, "tarnctl: unknown command \"%s\"; see tarnctl --help\n", argv[1]);
    return 2;
}
