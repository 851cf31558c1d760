// Holds what the pages show and where they point against the tree.

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/TextFile.h"

namespace {

namespace fs = std::filesystem;

using TarnTest::ReadFile;

const fs::path source_root = TARN_SOURCE_ROOT;

std::vector<fs::path> FilesIn(const char* folder, const char* extension) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(source_root / folder)) {
        if (entry.path().extension() == extension) {
            files.push_back(entry.path());
        }
    }
    return files;
}

/// What stands between each `begin` and the `end` that follows it.
std::vector<std::string> Between(const std::string& begin, const std::string& end, const std::string& text) {
    std::vector<std::string> found;
    std::size_t at = text.find(begin);
    while (at != std::string::npos) {
        at += begin.size();
        const std::size_t stop = text.find(end, at);
        found.push_back(text.substr(at, stop - at));
        at = text.find(begin, stop);
    }
    return found;
}

TEST(Documents, GuidePagesQuoteTheExamplesAsTheyAre) {
    std::string examples;
    for (const fs::path& example : FilesIn("examples", ".cpp")) {
        examples += ReadFile(example);
    }
    std::size_t quotes = 0;
    for (const fs::path& page : FilesIn("docs", ".md")) {
        for (const std::string& quote : Between("```cpp\n", "```", ReadFile(page))) {
            EXPECT_NE(std::string::npos, examples.find(quote)) << page << " shows what is in no example:\n" << quote;
            ++quotes;
        }
    }
    EXPECT_GE(quotes, 2U) << "hardly any quote was found: is the pattern still right?";
}

TEST(Documents, LinksIntoTheTreePointToFiles) {
    std::vector<fs::path> pages = FilesIn(".", ".md");
    const std::vector<fs::path> guides = FilesIn("docs", ".md");
    pages.insert(pages.end(), guides.begin(), guides.end());
    std::size_t links = 0;
    for (const fs::path& page : pages) {
        for (const std::string& target : Between("](", ")", ReadFile(page))) {
            if (target.find("://") != std::string::npos) {
                continue;
            }
            EXPECT_TRUE(fs::exists(page.parent_path() / target)) << page << " points to " << target;
            ++links;
        }
    }
    EXPECT_GE(links, 5U) << "hardly any link was found: is the pattern still right?";
}

}  // namespace
