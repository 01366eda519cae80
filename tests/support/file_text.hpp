#pragma once
// Whole files as text, for tests that lay out a folder and check what is left in it.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace skiff::test {

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}
inline std::string readFile(const std::filesystem::path& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace skiff::test
