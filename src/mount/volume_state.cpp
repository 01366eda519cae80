#include "mount/volume_state.hpp"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>
#include <thread>

#include "mount/mount_table.hpp"
#include "transfer/shared_file_storage.hpp"

namespace skiff::mount {

namespace {
constexpr std::string_view kStateNames[] = {"notMounted", "mounted", "broken"};
}  // namespace

std::span<const std::string_view> textNames(VolumeState) {
    return kStateNames;
}

std::optional<std::filesystem::path> defaultMountPoint() {
    auto data = transfer::harborDataPath(std::getenv("XDG_DATA_HOME"), std::getenv("HOME"));
    if (data) {
        *data /= "mnt";
    }
    return data;
}

VolumeState volumeStateAt(const std::filesystem::path& mountTable,
                          const std::filesystem::path& mountPoint,
                          std::chrono::milliseconds answerWithin) {
    std::ifstream in(mountTable);
    std::stringstream table;
    table << in.rdbuf();
    const auto type = mountedTypeAt(table.str(), mountPoint.string());
    if (!type || !isSkiffType(*type)) {
        return VolumeState::notMounted;
    }
    // Detached: a file system that never answers would hold the thread for good, and the
    // caller must not wait for it beyond its limit.
    auto answered = std::make_shared<std::promise<bool>>();
    auto outcome = answered->get_future();
    std::thread([answered, path = mountPoint] {
        struct stat st {};
        answered->set_value(::stat(path.c_str(), &st) == 0);
    }).detach();
    if (outcome.wait_for(answerWithin) != std::future_status::ready || !outcome.get()) {
        return VolumeState::broken;
    }
    return VolumeState::mounted;
}

}  // namespace skiff::mount
