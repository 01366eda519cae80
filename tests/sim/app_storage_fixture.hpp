#pragma once
// The app's storage for the simulated app's handlers: a few files and folders, links to a
// folder inside and one outside, and a file outside that no request may reach.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "relay/relay_schema.hpp"
#include "sim/app_lookup.hpp"
#include "support/child_process.hpp"
#include "support/file_text.hpp"

namespace skiff::sim {

class AppStorageTest : public ::testing::Test {
protected:
    AppStorageTest() : root_(base_.path() + "/storage") { populate(); }

    void populate() {
        namespace fs = std::filesystem;
        fs::remove_all(root_);
        fs::create_directories(root_ / "docs/sub");
        fs::create_directories(root_ / "empty");
        fs::create_directories(outside_);
        test::writeFile(root_ / "docs/a.txt", "hello");
        test::writeFile(root_ / "docs/sub/x", "x");
        test::writeFile(root_ / "file.txt", "file");
        test::writeFile(outside_ / "secret.txt", "outside");
        fs::create_directory_symlink(root_ / "docs", root_ / "docs-link");
        fs::create_directory_symlink(outside_, root_ / "out");
        fs::create_symlink(outside_ / "secret.txt", root_ / "secret-link");
    }

    // Every path under the storage with its kind and content: what a refusal must leave.
    std::set<std::string> tree() const {
        std::set<std::string> entries;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
            const auto path = std::filesystem::relative(entry.path(), root_).string();
            entries.insert(entry.is_symlink()     ? path + " -> link"
                           : entry.is_directory() ? path + "/"
                                                  : path + " = " + test::readFile(entry.path()));
        }
        return entries;
    }

    tunnel::TunnelMessage lookUp(
        const std::string& id,
        relay::RelayLookupSource source = relay::RelayLookupSource::fsGetAttributes) {
        return lookUpItem(root_, *json::encode(relay::RelayLookupRequest{id, source}));
    }
    relay::RelayItemSummary summary(const std::string& id) {
        const auto answer = lookUp(id);
        EXPECT_EQ(answer.code, 0) << id;
        return json::decode<relay::RelayItemSummary>(answer.payload)
            .value_or(relay::RelayItemSummary{});
    }
    // Empty for an item that is not there.
    Bytes contentVersion(const std::string& id) {
        return json::decode<relay::RelayItemSummary>(lookUp(id).payload)
            .value_or(relay::RelayItemSummary{})
            .contentVersion.value_or(Bytes{});
    }

    test::TempDir base_;
    std::filesystem::path root_;
    std::filesystem::path outside_ = std::filesystem::path(base_.path()) / "outside";
};

}  // namespace skiff::sim
