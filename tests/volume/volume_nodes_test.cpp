// The volume's pure parts: how failures become errno values, and the node table that keeps
// open files reachable through renames and unlinks.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "volume/errno_map.hpp"
#include "volume/node_table.hpp"

namespace skiff::volume {
namespace {

TEST(VolumeErrno, EveryAppStatusHasItsErrnoAndRemovingANonEmptyDirectoryIsNotEmpty) {
    struct Case {
        std::int64_t status;
        Operation operation;
        int expected;
    };
    // Where the operation changes the answer, and statuses past the known ones.
    const Case cases[] = {
        {0, Operation::other, 0},
        {3, Operation::other, EEXIST},
        {3, Operation::remove, ENOTEMPTY},
        {1, Operation::remove, ENOENT},
        {6, Operation::other, kConflictErrno},
        {10, Operation::other, EIO},
        {-1, Operation::other, EIO},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(errnoOfDeviceStatus(c.status, c.operation), c.expected) << c.status;
    }
}
TEST(NodeTable, ARenameCarriesTheWholeSubtreeAndUnlinksWhatItReplaces) {
    NodeTable table;
    std::map<std::string, NodeId> ids;
    for (const char* identifier : {"a", "a/b", "a/b/c.txt", "a b", "a0", "x", "z", "t"}) {
        const std::string name = identifier;
        const bool file = name.ends_with(".txt") || name == "t" || name == "x";
        ids[name] = table.learn(name, !file, 1)->id;
    }
    table.rename("a", "z/a");
    table.rename("x", "t");
    struct Case {
        const char* was;
        const char* now;  // "" when unlinked
    };
    const Case cases[] = {
        {"a", "z/a"}, {"a/b", "z/a/b"}, {"a/b/c.txt", "z/a/b/c.txt"}, {"a b", "a b"}, {"a0", "a0"},
        {"x", "t"},   {"t", ""},
    };
    for (const auto& c : cases) {
        const auto node = table.get(ids[c.was]);
        ASSERT_TRUE(node) << c.was;
        const bool gone = std::string(c.now).empty();
        EXPECT_EQ(table.unlinked(*node), gone) << c.was;
        if (!gone) {
            EXPECT_EQ(table.identifierOf(*node), c.now) << c.was;
            EXPECT_EQ(table.find(c.now), node) << c.was;
        }
    }
    EXPECT_FALSE(table.find("a/b"));
    EXPECT_EQ(table.children("z/a").size(), 1u);
    EXPECT_EQ(table.children("").size(), 4u);  // "a b", "a0", "t", "z"
}

TEST(NodeTable, ANodeLivesWhileLookedUpOpenOrPinnedAndAnUnlinkedOneUntilItsLastClose) {
    enum class Op { open, close, forget, unlink, pin, unpin, relearn };
    struct Step {
        Op op;
        bool alive;              // still reachable by its id
        bool lastClose = false;  // what closed() answered
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
    };
    const Case cases[] = {
        {"forgotten", {{Op::forget, false}}},
        {"open outlives the kernel", {{Op::open, true}, {Op::forget, true}, {Op::close, false}}},
        {"unlinked while open",
         {{Op::open, true},
          {Op::unlink, true},
          {Op::forget, true},
          {Op::open, true},
          {Op::close, true, false},
          {Op::close, false, true}}},
        {"pinned bytes outlive everyone",
         {{Op::pin, true},
          {Op::forget, true},
          {Op::relearn, true},
          {Op::unpin, true},
          {Op::forget, false}}},
        {"an unlink ends a pin", {{Op::pin, true}, {Op::forget, true}, {Op::unlink, false}}},
    };
    for (const auto& c : cases) {
        NodeTable table;
        auto node = table.learn("docs/f.txt", false, 1);
        const auto id = node->id;
        for (const auto& step : c.steps) {
            bool last = false;
            switch (step.op) {
                case Op::open:
                    table.opened(*node);
                    break;
                case Op::close:
                    last = table.closed(*node);
                    break;
                case Op::forget:
                    table.forget(id, 1);
                    break;
                case Op::unlink:
                    table.unlink("docs/f.txt");
                    break;
                case Op::pin:
                    table.pin(*node, true);
                    break;
                case Op::unpin:
                    table.pin(*node, false);
                    break;
                case Op::relearn:
                    EXPECT_EQ(table.learn("docs/f.txt", false, 1), node);
                    break;
            }
            EXPECT_EQ(table.get(id) != nullptr, step.alive) << c.name;
            EXPECT_EQ(last, step.lastClose) << c.name;
        }
    }
}

TEST(NodeTable, ANodeIdIsNeverReused) {
    NodeTable table;
    const auto first = table.learn("f", false, 1)->id;
    table.forget(first, 1);
    EXPECT_NE(table.learn("f", false, 1)->id, first);
    // An item that changed kind is a new node.
    EXPECT_NE(table.learn("f", true, 1)->id, first);
}

}  // namespace
}  // namespace skiff::volume
