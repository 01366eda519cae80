#include "volume/pending_store.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "common/file_io.hpp"
#include "common/log.hpp"
#include "common/unique_fd.hpp"
#include "transfer/shared_file_storage.hpp"

namespace skiff::volume {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kRecordSuffix = ".pending";
constexpr std::string_view kAsideSuffix = ".pending.bad";
constexpr std::string_view kTempSuffix = ".pending.tmp";
// A record is a few ranges; anything this large is not one of ours.
constexpr std::uintmax_t kMaxRecordBytes = 16 * 1024 * 1024;

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() > suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string_view withoutSuffix(std::string_view text, std::string_view suffix) {
    return text.substr(0, text.size() - suffix.size());
}

bool syncFolder(const fs::path& folder) {
    const UniqueFd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return dir.get() >= 0 && ::fsync(dir.get()) == 0;
}

std::optional<PendingWrite> readRecord(const fs::path& path) {
    std::error_code error;
    const auto size = fs::file_size(path, error);
    if (error || size > kMaxRecordBytes) {
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    const Bytes body{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.good() && !in.eof()) {
        return std::nullopt;
    }
    auto record = json::decode<PendingWrite>(body);
    // The record names its own copy; one that names another file is not to be trusted.
    const auto name = path.filename().string();
    if (!record || record->copyName != withoutSuffix(name, kRecordSuffix)) {
        return std::nullopt;
    }
    for (const auto& range : record->dirty) {
        if (range.length > UINT64_MAX - range.offset) {
            return std::nullopt;
        }
    }
    return record;
}

}  // namespace

std::optional<fs::path> defaultVolumeFolder() {
    auto container =
        transfer::defaultContainerPath(std::getenv("XDG_DATA_HOME"), std::getenv("HOME"));
    if (!container) {
        return std::nullopt;
    }
    return *container / "volume";
}

PendingStore::PendingStore(fs::path folder) : folder_(std::move(folder)) {
    std::error_code error;
    if (fs::create_directories(folder_, error)) {
        fs::permissions(folder_, fs::perms::owner_all, error);
    }
}

bool PendingStore::save(const PendingWrite& write, bool durable) {
    if (!transfer::isContainerFileName(write.copyName)) {
        log::xpc().error("skiff-fs will not record a write under the name \"%{public}s\"",
                         write.copyName.c_str());
        return false;
    }
    const auto body = json::encode(write);
    if (!body) {
        return false;
    }
    const auto temp = folder_ / (write.copyName + std::string(kTempSuffix));
    const auto final = folder_ / (write.copyName + std::string(kRecordSuffix));
    std::lock_guard guard(mutex_);
    bool done = false;
    {
        const UniqueFd file(
            ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
        done = file.get() >= 0 && writeAllAt(file.get(), *body, 0) &&
               (!durable || ::fsync(file.get()) == 0);
    }
    done = done && ::rename(temp.c_str(), final.c_str()) == 0 && (!durable || syncFolder(folder_));
    if (!done) {
        log::xpc().error("skiff-fs cannot record the pending write of %{public}s: %{public}s",
                         write.identifier.c_str(), std::strerror(errno));
        ::unlink(temp.c_str());
    }
    return done;
}

void PendingStore::remove(const std::string& copyName) {
    if (!transfer::isContainerFileName(copyName)) {
        return;
    }
    std::lock_guard guard(mutex_);
    std::error_code error;
    // Not flushed: a record that comes back after a power loss only pushes bytes the phone
    // has already, against a version it no longer has (kept beside it, never lost).
    fs::remove(folder_ / (copyName + std::string(kRecordSuffix)), error);
}

std::vector<PendingWrite> PendingStore::loadAll() {
    std::vector<PendingWrite> out;
    std::lock_guard guard(mutex_);
    std::error_code error;
    for (fs::directory_iterator it(folder_, error), end; !error && it != end; it.increment(error)) {
        const auto name = it->path().filename().string();
        if (!endsWith(name, kRecordSuffix)) {
            continue;
        }
        if (auto record = readRecord(it->path())) {
            out.push_back(std::move(*record));
            continue;
        }
        // Set aside, not removed: its local copy still holds what the user wrote.
        const auto aside =
            std::string(withoutSuffix(name, kRecordSuffix)) + std::string(kAsideSuffix);
        log::xpc().error(
            "skiff-fs cannot read the pending write record %{public}s; kept as %{public}s",
            name.c_str(), aside.c_str());
        std::error_code ignored;
        fs::rename(it->path(), folder_ / aside, ignored);
    }
    return out;
}

void PendingStore::removeOrphans(const std::set<std::string>& inUse) {
    std::lock_guard guard(mutex_);
    std::set<std::string> recorded;
    std::vector<fs::path> candidates;
    std::error_code error;
    for (fs::directory_iterator it(folder_, error), end; !error && it != end; it.increment(error)) {
        const auto name = it->path().filename().string();
        if (endsWith(name, kAsideSuffix)) {
            recorded.emplace(withoutSuffix(name, kAsideSuffix));
        } else if (endsWith(name, kRecordSuffix)) {
            recorded.emplace(withoutSuffix(name, kRecordSuffix));
        } else {
            // Half-written records are candidates too: no save runs while the lock is held.
            candidates.push_back(it->path());
        }
    }
    for (const auto& path : candidates) {
        const auto name = path.filename().string();
        const bool halfWritten = endsWith(name, kTempSuffix);
        if (!halfWritten && (recorded.contains(name) || inUse.contains(name))) {
            continue;
        }
        std::error_code ignored;
        if (fs::is_regular_file(fs::symlink_status(path, ignored)) && fs::remove(path, ignored)) {
            log::xpc().info("skiff-fs removed %{public}s, left in its folder by a crash",
                            name.c_str());
        }
    }
}

std::size_t PendingStore::countIn(const fs::path& folder) {
    std::size_t count = 0;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        count += endsWith(it->path().filename().string(), kRecordSuffix) ? 1 : 0;
    }
    return count;
}

}  // namespace skiff::volume
