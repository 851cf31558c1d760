// Text from the network in a log line: it must come out as written, cut to the line's size, whatever is in it.
//
// Console and ring are held against an oracle that is written character by character.

#include <TarnSocketIO/CUtility.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/Expect.h"

namespace {

using TarnFuzz::Expect;
using TarnSocketIO::CUtility;

constexpr std::size_t stamp_length = 24;
constexpr std::size_t longest_line = 511;

/// Standard output, sent to a file that can be read back.
class ConsoleFile {
public:
    ConsoleFile() : m_file(open("/tmp", O_TMPFILE | O_RDWR, 0600)) {
        if (m_file == -1 || dup2(m_file, STDOUT_FILENO) == -1) {
            std::abort();
        }
    }

    std::string Take() {
        std::fflush(stdout);
        char text[2 * CUtility::LOG_ENTRY_SIZE];
        const ssize_t length = pread(m_file, text, sizeof text, 0);
        if (length < 0 || ftruncate(m_file, 0) != 0 || lseek(m_file, 0, SEEK_SET) != 0) {
            std::abort();
        }
        return {text, static_cast<std::size_t>(length)};
    }

private:
    int m_file;
};

std::string OnConsole(const std::string& line) {
    std::string shown;
    bool after_percent = false;
    for (const char c : line) {
        const bool second_of_two = c == '%' && after_percent;
        if (!second_of_two) {
            shown += c;
        }
        after_percent = c == '%' && !second_of_two;
    }
    return shown + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static ConsoleFile console;
    // A C string ends at its first NUL, and so does what the log sees of it.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::min(text.find('\0'), text.size()));
    const std::string message = text.substr(0, longest_line - stamp_length);

    CUtility::SetLoggingDestination(3);
    const int entry = CUtility::m_nLogEntryIter;
    CUtility::Debug("%s", text.c_str());
    Expect(message, std::string(CUtility::GetCyclicLogEntries(entry)).substr(stamp_length), "ring");
    Expect("", console.Take(), "console while the ring is the destination");

    CUtility::SetLoggingDestination(1);
    CUtility::Debug("%s", text.c_str());
    Expect(OnConsole(message), console.Take().substr(stamp_length), "console");

    const std::string tagged = (text + ": " + text + ": end").substr(0, longest_line - stamp_length);
    CUtility::DebugLocal(text, text, "end");
    Expect(OnConsole(tagged), console.Take().substr(stamp_length), "console, tagged");
    return 0;
}
