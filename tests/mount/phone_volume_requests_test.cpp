#include "mount/phone_volume_requests.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "common/byte_text.hpp"
#include "common/io_runtime.hpp"
#include "common/log.hpp"
#include "common/run_sync.hpp"
#include "mount/fake_volume.hpp"

namespace skiff::mount {
namespace {

using namespace std::chrono_literals;
using ::skiff::testing::runSync;
using testing::FakeVolume;

class CountingListener : public VolumeListener {
public:
    void volumeDidMount() override { ++mounts; }
    void volumeDidUnmount() override { ++unmounts; }
    std::atomic<int> mounts{0};
    std::atomic<int> unmounts{0};
};

using skiff::testing::bytesOf;

class PhoneVolumeRequestsTest : public ::testing::Test {
protected:
    void SetUp() override { runtime_.start(); }

    // The lines the handler logged.
    std::vector<std::string> mountControl(const std::string& body) {
        capture_.clear();
        runSync(runtime_.executor(), requests_->handleMountControl(bytesOf(body)));
        return capture_.messages();
    }
    std::vector<std::string> poke(const std::string& relayID, const std::string& kind = "created") {
        capture_.clear();
        const std::string body = R"({"kind":")" + kind + R"(","relayID":")" + relayID + R"("})";
        runSync(runtime_.executor(), requests_->handleItemPoke(bytesOf(body)));
        return capture_.messages();
    }

    FakeVolume volume_;
    runtime::IoRuntime runtime_{1};
    std::shared_ptr<MountService> service_ = std::make_shared<MountService>(volume_.options());
    std::shared_ptr<CountingListener> listener_ = std::make_shared<CountingListener>();
    std::shared_ptr<PhoneVolumeRequests> requests_ =
        std::make_shared<PhoneVolumeRequests>(service_, listener_);
    log::LogCapture capture_;
};

using Lines = std::vector<std::string>;

TEST_F(PhoneVolumeRequestsTest, MountControlActsThenTellsTheListenerOnlyOnSuccess) {
    for (const char* body : {R"({"action":"Mount"})", R"({"action":5})", "{}", "mount", ""}) {
        EXPECT_EQ(mountControl(body), Lines{"mountControl decode failed"}) << body;
    }
    EXPECT_EQ(mountControl(R"({"action":"unmount"})"),
              Lines{"mountControl unmount failed: Skiff is not mounted."});
    EXPECT_EQ(mountControl(R"({"action":"mount"})"), Lines{"mountControl mount ok"});
    EXPECT_EQ(mountControl(R"({"action":"mount"})"),
              Lines{"mountControl mount failed: Skiff is already mounted."});
    EXPECT_EQ(listener_->mounts, 1);
    EXPECT_EQ(listener_->unmounts, 0);

    EXPECT_EQ(mountControl(R"({"action":"unmount"})"), Lines{"mountControl unmount ok"});
    EXPECT_FALSE(service_->isMounted());
    EXPECT_EQ(listener_->mounts, 1);
    EXPECT_EQ(listener_->unmounts, 1);
}

TEST_F(PhoneVolumeRequestsTest, PokesTouchOnlyItemsInsideTheMountPoint) {
    const auto mp = volume_.mountPoint();
    std::filesystem::create_directories(mp / "dir");
    skiff::test::writeFile(mp / "dir" / "a b.txt", "x");
    // Outside the mount point, where a ".." would lead.
    skiff::test::writeFile(volume_.dir() / "Harbor data" / "outside", "x");
    const auto old = std::filesystem::file_time_type::clock::now() - 24h;
    for (const auto& item : {mp / "dir" / "a b.txt", volume_.dir() / "Harbor data" / "outside"}) {
        std::filesystem::last_write_time(item, old);
    }

    const std::string ignored = "itemMutation poke ignored: invalid relayID";
    for (const char* relayID : {"", "   ", "\\t\\n", "/dir/a b.txt", "  /dir", "..", "../outside",
                                "dir/../../outside", "dir/..", "dir/a\\u0000/../../outside"}) {
        EXPECT_EQ(poke(relayID), Lines{ignored}) << relayID;
    }
    EXPECT_EQ(poke("x", "moved"), Lines{"itemMutation poke decode failed"});

    const std::string missing = (mp / "missing.txt").string();
    EXPECT_EQ(
        poke("missing.txt", "deleted"),
        (Lines{"itemMutation poke path=" + missing,
               "itemMutation poke kind=deleted path=" + missing + ": No such file or directory"}));

    const std::string item = (mp / "dir" / "a b.txt").string();
    EXPECT_EQ(poke(" dir/a b.txt\\r\\n"),
              (Lines{"itemMutation poke path=" + item,
                     "itemMutation poke ok kind=created path=" + item}));
    EXPECT_GT(std::filesystem::last_write_time(item), old + 23h);
    EXPECT_EQ(std::filesystem::last_write_time(volume_.dir() / "Harbor data" / "outside"), old);
    EXPECT_EQ(listener_->mounts + listener_->unmounts, 0);
}

}  // namespace
}  // namespace skiff::mount
