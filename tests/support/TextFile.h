#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace TarnTest {

/// The whole text of a file; empty if there is none.
inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace TarnTest
