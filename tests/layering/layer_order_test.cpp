// The folders of src/ form layers; a file may include from its own layer and those below,
// never from above. A program sits on top of every library.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Lowest first. Programs share the top.
const std::map<std::string, int> kLayers = {
    {"common", 0}, {"usbmuxkit", 1}, {"tunnel", 2}, {"relay", 3}, {"transfer", 4},
    {"mount", 5},  {"service", 6},   {"volume", 7}, {"ctl", 8},   {"sim", 8},
};

std::vector<std::string> upwardIncludes(const fs::path& root) {
    std::vector<std::string> found;
    const std::regex include(R"re(^\s*#\s*include\s+"([a-z_]+)/)re");
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const auto ext = entry.path().extension();
        if (!entry.is_regular_file() || (ext != ".cpp" && ext != ".hpp" && ext != ".h")) {
            continue;
        }
        const auto folder = fs::relative(entry.path(), root).begin()->string();
        const auto own = kLayers.find(folder);
        if (own == kLayers.end()) {
            found.push_back(entry.path().string() + ": folder has no layer");
            continue;
        }
        std::ifstream in(entry.path());
        int lineNumber = 0;
        for (std::string line; std::getline(in, line);) {
            ++lineNumber;
            std::smatch match;
            if (!std::regex_search(line, match, include)) {
                continue;
            }
            const auto target = kLayers.find(match[1].str());
            if (target == kLayers.end() || target->second > own->second ||
                (target->second == own->second && target->first != folder)) {
                found.push_back(entry.path().string() + ":" + std::to_string(lineNumber) + ": " +
                                line);
            }
        }
    }
    return found;
}

TEST(LayerOrder, NoFileIncludesFromALayerAboveItsOwn) {
    const auto found = upwardIncludes(fs::path(SKIFF_SOURCE_DIR) / "src");
    std::string report;
    for (const auto& line : found) {
        report += line + "\n";
    }
    EXPECT_TRUE(found.empty()) << report;
}

}  // namespace
