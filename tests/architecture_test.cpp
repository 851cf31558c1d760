// Holds the include directions of the sources against the table in docs/architecture.md.

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path source_root = TARN_SOURCE_ROOT;
const fs::path libraries = source_root / "libraries";

struct Room {
    std::string name;
    std::vector<std::regex> files;
    std::set<std::string> may_include;
};

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// A name with at most one `*` in it.
std::regex PatternOf(const std::string& glob) {
    const std::string literal = std::regex_replace(glob, std::regex("[.]"), "[.]");
    return std::regex(std::regex_replace(literal, std::regex("[*]"), ".*"));
}

std::vector<std::string> MatchesOf(const std::string& text, const std::string& pattern) {
    const std::regex expression(pattern);
    std::vector<std::string> matches;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match) {
        matches.push_back((*match)[1]);
    }
    return matches;
}

std::vector<Room> ReadRooms() {
    std::istringstream page(ReadFile(source_root / "docs/architecture.md"));
    const std::regex row(R"(\| (\w+) \| (`Tarn\w+/[^|]*`) \|([^|]*)\|)");
    std::vector<Room> rooms;
    std::smatch match;
    for (std::string line; std::getline(page, line);) {
        if (std::regex_match(line, match, row)) {
            Room room{match[1], {}, {}};
            for (const std::string& glob : MatchesOf(match[2], "`([^`]+)`")) {
                room.files.push_back(PatternOf(glob));
            }
            for (const std::string& other : MatchesOf(match[3], R"((\w+))")) {
                room.may_include.insert(other);
            }
            rooms.push_back(room);
        }
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
        for (const std::regex& pattern : room.files) {
            if (std::regex_match(file, pattern)) {
                found.push_back(room.name);
            }
        }
    }
    return found;
}

/// Every `#include` of one of our own headers, as it is written.
std::vector<std::string> OwnIncludes(const fs::path& source) {
    return MatchesOf(ReadFile(source), R"(#include\s*[<"]((?:TarnSocketIO|TarnRuntime)/[^>"]+)[>"])");
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
