// Holds the include directions of the sources against the table in docs/architecture.md.

#include <fnmatch.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/TextFile.h"

namespace {

using TarnTest::ReadFile;

namespace fs = std::filesystem;

const fs::path source_root = TARN_SOURCE_ROOT;
const fs::path libraries = source_root / "libraries";

struct Room {
    std::string name;
    std::vector<std::string> files;  // patterns as of the shell
    std::set<std::string> may_include;
};

std::vector<std::string> SplitAt(char separator, const std::string& text) {
    std::istringstream rest(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(rest, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::vector<std::string> WordsOf(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

/// The rows that name files: `| room | `files` | may include |`.
std::vector<Room> ReadRooms() {
    std::istringstream page(ReadFile(source_root / "docs/architecture.md"));
    std::vector<Room> rooms;
    for (std::string line; std::getline(page, line);) {
        const std::vector<std::string> cells = SplitAt('|', line);
        if (cells.size() < 4 || cells[2].rfind(" `Tarn", 0) != 0) {
            continue;
        }
        Room room{WordsOf(cells[1]).at(0), {}, {}};
        for (const std::string& file : WordsOf(cells[2])) {
            room.files.push_back(file.substr(1, file.size() - 2));
        }
        for (const std::string& other : WordsOf(cells[3])) {
            room.may_include.insert(other);
        }
        rooms.push_back(room);
    }
    return rooms;
}

std::vector<fs::path> SourcesBelow(const fs::path& folder) {
    std::vector<fs::path> sources;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.path().extension() == ".h" || entry.path().extension() == ".cpp") {
            sources.push_back(entry.path());
        }
    }
    return sources;
}

std::vector<std::string> RoomsOf(const std::vector<Room>& rooms, const std::string& file) {
    std::vector<std::string> found;
    for (const Room& room : rooms) {
        for (const std::string& pattern : room.files) {
            if (fnmatch(pattern.c_str(), file.c_str(), FNM_PATHNAME) == 0) {
                found.push_back(room.name);
            }
        }
    }
    return found;
}

/// Every `#include` of one of our own headers, as it is written.
std::vector<std::string> OwnIncludes(const fs::path& source) {
    std::vector<std::string> headers;
    for (const std::string& line : SplitAt('\n', ReadFile(source))) {
        const std::size_t begin = line.find_first_of("<\"") + 1;
        const std::size_t end = line.find_first_of(">\"", begin);
        if (line.rfind("#include", 0) == 0 && begin != 0 && end != std::string::npos) {
            const std::string header = line.substr(begin, end - begin);
            if (header.rfind("Tarn", 0) == 0) {
                headers.push_back(header);
            }
        }
    }
    return headers;
}

TEST(Architecture, EveryFileHasExactlyOneRoom) {
    const std::vector<Room> rooms = ReadRooms();
    ASSERT_GE(rooms.size(), 5U) << "the table was not found";
    for (const fs::path& source : SourcesBelow(libraries)) {
        const std::string file = fs::relative(source, libraries).string();
        EXPECT_EQ(1U, RoomsOf(rooms, file).size()) << file;
    }
}

TEST(Architecture, RoomsIncludeOnlyWhatTheTableAllows) {
    const std::vector<Room> rooms = ReadRooms();
    std::map<std::string, std::set<std::string>> allowed;
    for (const Room& room : rooms) {
        allowed[room.name] = room.may_include;
        allowed[room.name].insert(room.name);
    }
    std::size_t includes = 0;
    for (const fs::path& source : SourcesBelow(libraries)) {
        const std::vector<std::string> from = RoomsOf(rooms, fs::relative(source, libraries).string());
        ASSERT_EQ(1U, from.size()) << source;
        for (const std::string& header : OwnIncludes(source)) {
            const std::vector<std::string> to = RoomsOf(rooms, header);
            ASSERT_EQ(1U, to.size()) << header << " included by " << source;
            EXPECT_EQ(1U, allowed[from[0]].count(to[0]))
                << source << " is in room " << from[0] << ", which may not include " << header << " in room " << to[0];
            ++includes;
        }
    }
    EXPECT_GE(includes, 10U) << "hardly any include was found: is the pattern still right?";
}

TEST(Architecture, RoomsIncludeOneWayOnly) {
    std::map<std::string, std::set<std::string>> open;
    for (const Room& room : ReadRooms()) {
        open[room.name] = room.may_include;
    }
    // Rooms that include no room which is still there are taken away, until none is left or a circle is.
    for (bool found = true; found;) {
        found = false;
        for (const auto& [name, may_include] : open) {
            bool free = true;
            for (const std::string& other : may_include) {
                free = free && open.count(other) == 0;
            }
            if (free) {
                open.erase(name);
                found = true;
                break;
            }
        }
    }
    EXPECT_THAT(open, testing::IsEmpty());
}

TEST(Architecture, PublicHeadersDoNotIncludeInternalOnes) {
    for (const fs::path& source : SourcesBelow(libraries)) {
        if (source.extension() == ".h" && source.parent_path().filename() != "detail") {
            EXPECT_THAT(OwnIncludes(source), testing::Not(testing::Contains(testing::HasSubstr("/detail/")))) << source;
        }
    }
}

TEST(Architecture, ProgramsUseThePublicHeadersOnly) {
    for (const char* folder : {"examples", "tools", "benchmarks"}) {
        for (const fs::path& source : SourcesBelow(source_root / folder)) {
            EXPECT_THAT(OwnIncludes(source), testing::Not(testing::Contains(testing::HasSubstr("/detail/")))) << source;
        }
    }
}

TEST(Architecture, NoTwoFilesIncludeEachOther) {
    for (const fs::path& source : SourcesBelow(libraries)) {
        const std::string file = fs::relative(source, libraries).string();
        for (const std::string& header : OwnIncludes(source)) {
            EXPECT_THAT(OwnIncludes(libraries / header), testing::Not(testing::Contains(file)))
                << file << " and " << header;
        }
    }
}

TEST(Architecture, TheCollectiveHeaderIncludesEveryPublicHeader) {
    const std::vector<std::string> included = OwnIncludes(libraries / "TarnSocketIO/TarnSocketIO.h");
    for (const fs::path& source : SourcesBelow(libraries / "TarnSocketIO")) {
        const std::string file = fs::relative(source, libraries).string();
        const bool is_public = source.extension() == ".h" && source.parent_path().filename() != "detail";
        if (is_public && file != "TarnSocketIO/TarnSocketIO.h" && file != "TarnSocketIO/ThreadAnnotations.h") {
            EXPECT_THAT(included, testing::Contains(file)) << "TarnSocketIO.h includes everything";
        }
    }
}

}  // namespace
