#include "sim/storage_watcher.hpp"

#include <gtest/gtest.h>

#include <asio.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "support/child_process.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using Kind = service::ItemMutationNotifyPayload::Kind;
using Mutation = service::ItemMutationNotifyPayload;

// Runs the io_context until the watcher has reported `count` mutations.
std::vector<Mutation> collect(asio::io_context& io, std::vector<Mutation>& seen,
                              std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + testing::kWaitLimit;
    while (seen.size() < count && std::chrono::steady_clock::now() < deadline) {
        io.run_one_for(std::chrono::milliseconds(100));
    }
    return seen;
}

TEST(StorageWatcher, FilesMadeByHandInAFolderMadeLaterArePushedByTheirPath) {
    test::TempDir storage;
    fs::create_directory(fs::path(storage.path()) / "old");
    asio::io_context io;
    std::vector<Mutation> seen;
    auto watcher = StorageWatcher::start(
        io.get_executor(), storage.path(), [&](const Mutation& m) { seen.push_back(m); },
        [](const std::string&) {});

    const fs::path root = storage.path();
    fs::create_directory(root / "new");
    ASSERT_EQ(collect(io, seen, 1), (std::vector<Mutation>{{Kind::created, "new"}}));
    std::ofstream(root / "new/a.txt") << "a";
    std::ofstream(root / "old/b.txt") << "b";
    fs::remove(root / "new/a.txt");
    // The transfer's commit names are not the user's doing.
    std::ofstream(root / "old/.skiff-commit-1") << "c";
    fs::rename(root / "old/.skiff-commit-1", root / "old/c.txt");
    EXPECT_EQ(collect(io, seen, 5), (std::vector<Mutation>{{Kind::created, "new"},
                                                           {Kind::created, "new/a.txt"},
                                                           {Kind::created, "old/b.txt"},
                                                           {Kind::deleted, "new/a.txt"},
                                                           {Kind::created, "old/c.txt"}}));
    watcher->stop();
}

}  // namespace
}  // namespace skiff::sim
