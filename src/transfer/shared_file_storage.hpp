#pragma once
// The shared container: one directory that the service and the file-system extension
// both open, so whole files pass between them without crossing the bus. Transfer files
// lie directly in it. The default is $XDG_DATA_HOME/Harbor/group.Mox.Harbor (or
// ~/.local/share/Harbor/group.Mox.Harbor), made with mode 0700 on first use.
//
// Every name is one plain file name inside the container, whoever chose it: a name
// that is empty, ".", "..", or holds "/" or a NUL byte is refused before anything is
// opened, and files are opened relative to the container without following links, so
// no name reaches outside it. The storage keeps nothing in memory but the container's
// path; its calls block and may run on any thread.

#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "common/unique_fd.hpp"
#include "common/uuid.hpp"

namespace skiff::transfer {

class SharedFileStorageError : public std::exception {
public:
    enum class Case {
        containerUnavailable,  // no container path, or it cannot be made or opened
        ioFailed,              // a file could not be made, sized, moved or opened
        invalidSize,           // part of the vocabulary; no operation here raises it
    };

    explicit SharedFileStorageError(Case c, std::error_code cause = {}) : case_(c), cause_(cause) {}
    Case errorCase() const { return case_; }
    // The system's error behind it, when there was one (EINVAL for a refused name).
    std::error_code cause() const { return cause_; }
    const char* what() const noexcept override;

private:
    Case case_;
    std::error_code cause_;
};

// Skiff's data directory for these environment values (either may be null):
// $XDG_DATA_HOME/Harbor, else ~/.local/share/Harbor. A relative XDG_DATA_HOME is ignored,
// as the base-directory convention asks. Nothing when neither gives an absolute directory.
// The container and the volume's mount point both lie in it.
std::optional<std::filesystem::path> harborDataPath(const char* xdgDataHome, const char* home);

// The default container path: group.Mox.Harbor in the data directory above.
std::optional<std::filesystem::path> defaultContainerPath(const char* xdgDataHome,
                                                          const char* home);

// Whether name may name a file of the container (see above).
bool isContainerFileName(std::string_view name);

// "transfer_<UUID>.part": a file being filled by a fetch; and the finished ".bin".
std::string partFileName(const Uuid& transfer);
std::string finalFileName(const Uuid& transfer);
// Whether name is one of the two, of any transfer.
bool isTransferFileName(std::string_view name);

class SharedFileStorage {
public:
    // The default container of this user's environment.
    SharedFileStorage();
    // A container of the caller's choosing (tests); made on first use like the default.
    explicit SharedFileStorage(std::filesystem::path container);

    // The container's path; throws containerUnavailable when there is none.
    std::filesystem::path containerPath() const;
    // The same, made (mode 0700) when missing, for callers that keep directories of their
    // own in it. Throws containerUnavailable, with the system's error when making failed.
    std::filesystem::path makeContainer() const;

    // A new empty file (an existing one is truncated), mode 0600, open for reading and
    // writing, with byteCount bytes reserved at once so that chunks can be written at
    // their offsets. The count is unsigned, so there is no negative size to refuse.
    // Throws containerUnavailable or ioFailed.
    UniqueFd create(std::string_view name, std::uint64_t byteCount) const;

    // Renames temp to final, replacing a file already there. temp's content is flushed to
    // stable storage before the rename and the container afterwards, so that a crash
    // leaves either the old final file or the complete new one. Throws
    // containerUnavailable or ioFailed with the system's error.
    void moveToFinalName(std::string_view temp, std::string_view final) const;

    // Removes the file; a missing file, a refused name or any failure is ignored.
    void remove(std::string_view name) const noexcept;

    // Opens a regular file for reading; a link, a directory or any other kind of file is
    // refused. This is how names handed in by clients are opened. Throws
    // containerUnavailable or ioFailed with the system's error.
    UniqueFd openSourceFile(std::string_view name) const;

private:
    // The container, made when missing, opened for *at calls and directory flushes.
    UniqueFd openContainer() const;

    std::optional<std::filesystem::path> container_;
};

}  // namespace skiff::transfer
