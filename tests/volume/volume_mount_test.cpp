// The volume through the kernel: skiff-fs mounted in the foreground as a child process,
// between a real mount point and skiffd with the simulated phone. Each test mounts its own
// volume and unmounts it in teardown.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "e2e/service_stack.hpp"
#include "support/file_text.hpp"
#include "volume/errno_map.hpp"

namespace skiff::test {
namespace {

namespace fs = std::filesystem;

std::string pattern(std::size_t size, char seed) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>(seed + i * 7 % 251);
    }
    return content;
}

void writePattern(const fs::path& path, std::size_t size, char seed) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << pattern(size, seed);
}

// Runs a shell command to its end; its exit status and output.
struct Ran {
    int status = -1;
    std::string output;
};
Ran run(const std::string& command) {
    ChildProcess child({"/bin/sh", "-c", command});
    const auto status = child.waitForExit(std::chrono::seconds(120));
    return {status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, child.output()};
}

class MountedVolume : public ::testing::Test {
protected:
    // Storage the phone starts with; each test adds what it needs.
    virtual void prepare(const fs::path&) {}
    // Where skiffd pokes items (its own mount point) rather than a folder of the test's.
    virtual bool atServiceMountPoint() const { return false; }
    virtual std::vector<std::string> options() const { return {}; }

    void SetUp() override {
        if (::access("/dev/fuse", R_OK | W_OK) != 0 ||
            ::access("/usr/bin/fusermount3", X_OK) != 0) {
            GTEST_SKIP() << "FUSE is not available here: /dev/fuse or fusermount3 is missing";
        }
        stack_ = std::make_unique<ServiceStack>([this](const std::string& storage) {
            fs::create_directories(fs::path(storage) / "Documents");
            std::ofstream(fs::path(storage) / "Documents/notes.txt") << "twelve bytes";
            prepare(storage);
        });
        mountDir_ = std::make_unique<TempDir>("skiff-mnt");
        mountPoint_ = atServiceMountPoint() ? fs::path(stack_->container()).parent_path() / "mnt"
                                            : fs::path(mountDir_->path());
        fs::create_directories(mountPoint_);
        startVolume();
    }

    void startVolume() {
        std::vector<std::string> args{buildPath("src/volume/skiff-fs"), "skiff-test-source",
                                      mountPoint_.string(), "-f"};
        const auto more = options();
        args.insert(args.end(), more.begin(), more.end());
        volume_ = std::make_unique<ChildProcess>(std::move(args), stack_->environment());
        ASSERT_TRUE(volume_->waitForOutput("skiff-fs: mounted", kE2eWait)) << volume_->output();
        mounted_ = true;
        // The service may learn of the phone a moment after the mount.
        ASSERT_TRUE(testing::eventually([&] {
            return fs::exists(mount() / "Documents/notes.txt");
        })) << volume_->output();
    }

    void TearDown() override {
        if (mounted_) {
            run("fusermount3 -u -z '" + mountPoint_.string() + "'");
        }
        if (volume_) {
            volume_->stop();
        }
    }

    fs::path mount() const { return mountPoint_; }
    fs::path storage() const { return stack_->storage(); }

    std::unique_ptr<ServiceStack> stack_;
    std::unique_ptr<TempDir> mountDir_;
    fs::path mountPoint_;
    std::unique_ptr<ChildProcess> volume_;
    bool mounted_ = false;
};

class MountedTree : public MountedVolume {
protected:
    void prepare(const fs::path& storage) override {
        // Sizes around the 4 MiB chunk: empty, one byte, exactly one chunk, one byte more.
        const std::size_t sizes[] = {0, 1, 4'194'304, 4'194'305, 10'000'000};
        for (std::size_t i = 0; i < std::size(sizes); ++i) {
            writePattern(storage / "tree/sized" / ("file" + std::to_string(i)), sizes[i], 'a');
        }
        for (int d = 0; d < 10; ++d) {
            for (int f = 0; f < 25; ++f) {
                writePattern(storage / "tree" / ("dir" + std::to_string(d)) / "sub" /
                                 ("f" + std::to_string(f) + ".txt"),
                             100 + f * 37, static_cast<char>('A' + d));
            }
        }
        // More entries than one page of the app's listing.
        fs::create_directories(storage / "many");
        for (int i = 0; i < 2500; ++i) {
            std::ofstream(storage / "many" / ("entry" + std::to_string(i)));
        }
    }
};

TEST_F(MountedTree, ATreeReadsListsAndCopiesInAndOutAsThePhoneHoldsIt) {
    const auto mountinfo = readFile("/proc/self/mountinfo");
    EXPECT_NE(mountinfo.find(mount().string() + " "), std::string::npos);
    EXPECT_NE(mountinfo.find(" - fuse.skiff skiff-test-source "), std::string::npos);

    // Reads backwards across chunk edges, each a fetch of its own, before any read-ahead.
    const auto large = pattern(10'000'000, 'a');
    const int fd = ::open((mount() / "tree/sized/file4").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << errno;
    for (std::size_t back = 0; back < 8; ++back) {
        const auto at = large.size() - 10'000 - back * 1'234'567;
        std::string got(10'000, '\0');
        ASSERT_EQ(::pread(fd, got.data(), got.size(), static_cast<off_t>(at)), 10'000) << errno;
        EXPECT_EQ(got, large.substr(at, 10'000)) << at;
    }
    ::close(fd);

    const auto diff = run("diff -r '" + (storage() / "tree").string() + "' '" +
                          (mount() / "tree").string() + "'");
    EXPECT_EQ(diff.status, 0) << diff.output;
    EXPECT_EQ(std::distance(fs::directory_iterator(mount() / "many"), fs::directory_iterator()),
              2500);

    // Copied in through the volume and out again, the tree is unchanged on the phone and here.
    const auto tree = (storage() / "tree").string();
    const auto copied = run("cp -r '" + tree + "' '" + (mount() / "copied").string() + "'");
    ASSERT_EQ(copied.status, 0) << copied.output << volume_->output();
    // An empty file that was never written goes out once its last handle is released.
    Ran onPhone;
    EXPECT_TRUE(testing::eventually([&] {
        onPhone = run("diff -r '" + tree + "' '" + (storage() / "copied").string() + "'");
        return onPhone.status == 0;
    })) << onPhone.output;
    TempDir scratch("skiff-copy");
    const auto back = run("cp -r '" + (mount() / "copied").string() + "' '" + scratch.path() +
                          "/back' && diff -r '" + tree + "' '" + scratch.path() + "/back'");
    EXPECT_EQ(back.status, 0) << back.output;
}

TEST_F(MountedTree, AReaderDuringAReplacementOnThePhoneGetsOnlyOldBytesOrAnError) {
    const auto size = 10'000'000;
    const auto old = pattern(size, 'a');
    const int fd = ::open((mount() / "tree/sized/file4").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << errno;
    std::string piece(1 << 20, '\0');
    ASSERT_EQ(::read(fd, piece.data(), 4096), 4096);
    writePattern(storage() / "tree/sized/replacement", size, 'N');
    fs::rename(storage() / "tree/sized/replacement", storage() / "tree/sized/file4");
    // A listing meanwhile tells the volume of the new version.
    EXPECT_EQ(run("ls -l '" + (mount() / "tree/sized").string() + "'").status, 0);
    std::size_t offset = 4096;
    ssize_t got = 0;
    while ((got = ::read(fd, piece.data(), piece.size())) > 0) {
        ASSERT_EQ(piece.compare(0, got, old, offset, got), 0) << "new bytes at " << offset;
        offset += static_cast<std::size_t>(got);
    }
    EXPECT_TRUE(got == 0 ? offset == old.size() : errno == EIO) << offset << " " << errno;
    ::close(fd);
}

TEST_F(MountedVolume, AHostileListingLeavesOutBadNamesAndAnEndlessOneFails) {
    const struct {
        const char* fault;
        int error;
    } cases[] = {{"bad-names", 0}, {"non-utf8-name", 0}, {"endless-list", EIO}};
    for (const auto& c : cases) {
        stack_->phone().command(std::string("fault ") + c.fault + " on");
        std::error_code error;
        std::vector<std::string> names;
        for (fs::directory_iterator it(mount() / "Documents", error), end; !error && it != end;
             it.increment(error)) {
            names.push_back(it->path().filename());
        }
        stack_->phone().command(std::string("fault ") + c.fault + " off");
        EXPECT_EQ(error.value(), c.error) << c.fault;
        EXPECT_EQ(names,
                  c.error ? std::vector<std::string>{} : std::vector<std::string>{"notes.txt"})
            << c.fault;
    }
}

TEST_F(MountedVolume, ChangesOnEitherSideReachTheOtherWithTheirErrors) {
    const auto docs = mount() / "Documents";

    // A write over a change made on the phone keeps both: the phone's under the name, the
    // user's beside it when the whole file is here, else in the recovered folder; the
    // close says so.
    const auto notes = mount() / "Documents/notes.txt";
    for (const int flags : {O_WRONLY, O_WRONLY | O_TRUNC}) {
        const int fd = ::open(notes.c_str(), flags);
        ASSERT_GE(fd, 0) << errno;
        const std::string theirs = "changed on the phone, flags " + std::to_string(flags);
        std::ofstream(storage() / "Documents/notes.txt") << theirs;
        ASSERT_EQ(::write(fd, "mine", 4), 4);
        EXPECT_EQ(::close(fd), -1);
        EXPECT_EQ(errno, volume::kConflictErrno);
        EXPECT_EQ(readFile(storage() / "Documents/notes.txt"), theirs);
    }
    const auto recovered = fs::path(stack_->container()).parent_path() / "recovered";
    ASSERT_EQ(std::distance(fs::directory_iterator(recovered), fs::directory_iterator()), 1);
    EXPECT_EQ(readFile(fs::directory_iterator(recovered)->path()).substr(0, 4), "mine");
    int beside = 0;
    for (const auto& entry : fs::directory_iterator(storage() / "Documents")) {
        if (entry.path().filename().string().starts_with("notes (conflict ")) {
            EXPECT_EQ(readFile(entry.path()), "mine");
            ++beside;
        }
    }
    EXPECT_EQ(beside, 1);
    std::ofstream(storage() / "Documents/notes.txt") << "twelve bytes";

    std::ofstream(docs / "old.txt") << "old";
    std::ofstream(docs / "new.txt") << "new";
    ASSERT_EQ(::rename((docs / "new.txt").c_str(), (docs / "old.txt").c_str()), 0) << errno;
    EXPECT_EQ(readFile(storage() / "Documents/old.txt"), "new");
    EXPECT_FALSE(fs::exists(storage() / "Documents/new.txt"));

    ASSERT_EQ(::truncate((docs / "old.txt").c_str(), 1), 0) << errno;
    EXPECT_EQ(readFile(storage() / "Documents/old.txt"), "n");

    // Shells and dd open, duplicate and close the first descriptor before writing: the
    // phone gets the written file only, never an empty one first.
    const int first = ::open((docs / "redirected.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(first, 0) << errno;
    const int second = ::dup(first);
    ASSERT_EQ(::close(first), 0) << errno;
    EXPECT_FALSE(fs::exists(storage() / "Documents/redirected.txt"));
    ASSERT_EQ(::write(second, "whole", 5), 5);
    ASSERT_EQ(::close(second), 0) << errno;
    EXPECT_EQ(readFile(storage() / "Documents/redirected.txt"), "whole");
}

class PokedVolume : public MountedVolume {
protected:
    bool atServiceMountPoint() const override { return true; }

    // The phone tells skiffd of a change; skiffd touches the item under its mount point.
    void poke(const std::string& kind, const std::string& item, const std::string& outcome) {
        ASSERT_TRUE(testing::eventually([&] {
            return stack_->phone().command("poke " + kind + " " + item).lines ==
                   std::vector<std::string>{"1"};
        }));
        const auto said = "itemMutation poke" + outcome + " path=" + (mount() / item).string();
        ASSERT_TRUE(stack_->service().waitForOutput(said, kE2eWait)) << said;
    }
};

TEST_F(PokedVolume, TheUsersTimesAndModesReachThePhoneAndTheServicesPokesOnlyRefresh) {
    const auto docs = mount() / "Documents";
    struct Case {
        const char* command;  // run in Documents
        bool (*holds)(const struct stat&);
    };
    const Case cases[] = {
        {"touch -d '2020-01-02 UTC' notes.txt",
         [](const struct stat& st) { return st.st_mtim.tv_sec == 1'577'923'200; }},
        {"touch notes.txt",
         [](const struct stat& st) { return st.st_mtim.tv_sec > 1'600'000'000; }},
        {"chmod 600 notes.txt", [](const struct stat& st) { return (st.st_mode & 07777) == 0600; }},
    };
    for (const auto& c : cases) {
        const auto ran = run("cd '" + docs.string() + "' && " + c.command);
        ASSERT_EQ(ran.status, 0) << c.command << ran.output;
        struct stat onPhone {};
        struct stat here {};
        ASSERT_EQ(::stat((storage() / "Documents/notes.txt").c_str(), &onPhone), 0);
        ASSERT_EQ(::stat((docs / "notes.txt").c_str(), &here), 0);
        EXPECT_TRUE(c.holds(onPhone)) << c.command;
        EXPECT_TRUE(c.holds(here)) << c.command;
    }

    // The service's pokes set no time on the phone and show what the phone changed.
    ASSERT_EQ(std::distance(fs::directory_iterator(docs), fs::directory_iterator()), 1);
    std::ofstream(storage() / "Documents/fresh.txt") << "from the phone";
    const auto before = fs::last_write_time(storage() / "Documents/notes.txt");
    poke("created", "Documents/notes.txt", " ok kind=created");
    poke("created", "Documents/fresh.txt", " ok kind=created");
    EXPECT_EQ(fs::last_write_time(storage() / "Documents/notes.txt"), before);
    EXPECT_EQ(readFile(docs / "fresh.txt"), "from the phone");
    // A poke for an item deleted on the phone fails and the item is gone at once.
    fs::remove(storage() / "Documents/fresh.txt");
    poke("deleted", "Documents/fresh.txt", " kind=deleted");
    EXPECT_FALSE(fs::exists(docs / "fresh.txt"));
}

TEST_F(MountedVolume, FilesBehaveAsOnALocalDiskBeforeAndAfterTheyReachThePhone) {
    struct Case {
        const char* script;  // run in Documents
        const char* printed;
        const char* file;     // on the phone once pushed ("" for none)
        const char* content;  // its content there; nullptr: the file must not be there
    };
    const Case cases[] = {
        {"touch a && echo hi >> a && cat a", "hi\n", "a", "hi\n"},
        {"echo one > b && truncate -s 2 b && cat b", "on", "b", "on"},
        {"exec 3>c; echo x >&3; rm c; echo y >&3; exec 3>&-; test -e c || echo gone", "gone\n", "c",
         nullptr},
        {"echo moved > d.tmp && mv d.tmp d && cat d", "moved\n", "d", "moved\n"},
        {"exec 3>e; echo part >&3; mv e e2; echo s >&3; exec 3>&-; cat e2", "part\ns\n", "e2",
         "part\ns\n"},
        {"(ln -s notes.txt l || ln notes.txt l2 || mkfifo p) 2>/dev/null || echo refused",
         "refused\n", "l", nullptr},
        {"(for i in $(seq 100); do echo A$i >> log; done) & "
         "(for i in $(seq 100); do echo B$i >> log; done); wait; wc -l < log",
         "200\n", "", nullptr},
        {"touch $(printf 'n%.0s' $(seq 256)) 2>&1 | grep -c 'too long'", "1\n", "", nullptr},
        {"mkdir f && touch f/x && rmdir f 2>&1 | grep -c 'not empty'; rm f/x && rmdir f", "1\n",
         "f", nullptr},
    };
    const auto docs = mount() / "Documents";
    for (const auto& c : cases) {
        const auto ran = run("cd '" + docs.string() + "' && (" + c.script + ")");
        EXPECT_EQ(ran.output, c.printed) << c.script;
        const auto onPhone = storage() / "Documents" / c.file;
        if (c.content) {
            EXPECT_TRUE(testing::eventually([&] { return readFile(onPhone) == c.content; }))
                << c.script << ": " << readFile(onPhone);
        } else if (*c.file) {
            EXPECT_FALSE(fs::exists(onPhone)) << c.script;
        }
    }

    EXPECT_TRUE(testing::eventually([&] {
        const auto log = readFile(storage() / "Documents/log");
        return std::count(log.begin(), log.end(), '\n') == 200;
    }));

    // Open, write, unlink, read: the file lives on for its descriptor until the last close.
    const int fd = ::open((docs / "scratch").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0) << errno;
    ASSERT_EQ(::write(fd, "temporary", 9), 9);
    ASSERT_EQ(::unlink((docs / "scratch").c_str()), 0) << errno;
    char back[9] = {};
    EXPECT_EQ(::pread(fd, back, 9, 0), 9);
    EXPECT_EQ(std::string(back, 9), "temporary");
    EXPECT_EQ(::pwrite(fd, "T", 1, 0), 1);
    struct stat st {};
    EXPECT_EQ(::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 9);
    EXPECT_EQ(::close(fd), 0);
    EXPECT_FALSE(fs::exists(docs / "scratch"));

    // Two descriptors writing different ranges of one file make one file, sent by the last
    // close; while the phone fails, every writer's close says so.
    const auto ranges = (docs / "ranges").string();
    const int one = ::open(ranges.c_str(), O_WRONLY | O_CREAT, 0644);
    const int two = ::open(ranges.c_str(), O_WRONLY);
    ASSERT_GE(two, 0) << errno;
    EXPECT_EQ(::pwrite(two, "bbbb", 4, 4), 4);
    EXPECT_EQ(::pwrite(one, "aaaa", 4, 0), 4);
    EXPECT_EQ(::close(one), 0);
    EXPECT_FALSE(fs::exists(storage() / "Documents/ranges"));
    EXPECT_EQ(::close(two), 0);
    EXPECT_EQ(readFile(storage() / "Documents/ranges"), "aaaabbbb");
    const int three = ::open(ranges.c_str(), O_WRONLY);
    const int four = ::open(ranges.c_str(), O_WRONLY);
    ASSERT_GE(four, 0) << errno;
    stack_->phone().command("fault status 5");
    EXPECT_EQ(::pwrite(three, "c", 1, 0), 1);
    EXPECT_EQ(::pwrite(four, "d", 1, 1), 1);
    EXPECT_EQ(::fsync(four), -1);
    EXPECT_EQ(::close(three), -1);
    stack_->phone().command("fault clear");
    EXPECT_EQ(::close(four), 0);
    EXPECT_EQ(readFile(storage() / "Documents/ranges"), "cdaabbbb");
}

// A sequential writer's full chunks go to the phone while it writes; whatever it does after
// them (writes into them, a rename, a cut), the phone ends up with the file as written.
TEST_F(MountedVolume, AStreamedFileLandsAsWrittenWhateverTheWriterDidAfterItsChunks) {
    const auto data = pattern(9'000'000, 's');
    const auto docs = mount() / "Documents";
    struct Case {
        const char* name;
        const char* landsAs;
        std::function<void(int fd)> after;  // once 8.5 MB are written
        std::string expected;
    };
    const Case cases[] = {
        {"plain", "plain", [](int) {}, data},
        {"rewritten", "rewritten", [](int fd) { ASSERT_EQ(::pwrite(fd, "HEAD", 4, 10), 4); },
         data.substr(0, 10) + "HEAD" + data.substr(14)},
        {"renamed", "moved", [&](int) { fs::rename(docs / "renamed", docs / "moved"); }, data},
        {"cut", "cut", [](int fd) { ASSERT_EQ(::ftruncate(fd, 5'000'000), 0); },
         data.substr(0, 5'000'000) + std::string(3'500'000, '\0') + data.substr(8'500'000)},
    };
    for (const auto& c : cases) {
        const int fd = ::open((docs / c.name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0) << errno;
        ASSERT_EQ(::write(fd, data.data(), 8'500'000), 8'500'000);
        c.after(fd);
        ASSERT_EQ(::write(fd, data.data() + 8'500'000, 500'000), 500'000);
        EXPECT_EQ(::close(fd), 0) << c.name;
        EXPECT_TRUE(readFile(storage() / "Documents" / c.landsAs) == c.expected) << c.name;
    }
    EXPECT_FALSE(fs::exists(storage() / "Documents/renamed"));
}

TEST_F(MountedVolume, WhatAFailedPushHeldReachesThePhoneOnceItCanEvenAfterARestart) {
    const auto notes = mount() / "Documents/notes.txt";
    // Every fsync and the close report the failed push while its bytes wait here.
    stack_->phone().command("fault fail-chunk 1");
    const int fd = ::open(notes.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(::write(fd, "new\n", 4), 4);
    EXPECT_EQ(::fsync(fd), -1);
    stack_->phone().command("fault status 5");
    EXPECT_EQ(::fsync(fd), -1);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(readFile(notes), "new\n");
    EXPECT_EQ(readFile(storage() / "Documents/notes.txt"), "twelve bytes");
    stack_->phone().command("fault clear");
    EXPECT_TRUE(testing::eventually(
        [&] { return readFile(storage() / "Documents/notes.txt") == "new\n"; }));

    // The phone leaves while the file is written and comes back. Opened before, so that
    // the open does not depend on how long the kernel keeps the entry.
    const int away = ::open(notes.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(away, 0);
    stack_->phone().detach(ServiceStack::kDevice);
    ASSERT_EQ(::write(away, "away\n", 5), 5);
    ::close(away);  // its push fails, or wins the race with the detach
    stack_->phone().attach(ServiceStack::kDevice);
    EXPECT_TRUE(testing::eventually([&] {
        return readFile(storage() / "Documents/notes.txt") == "away\n";
    })) << readFile(storage() / "Documents/notes.txt")
        << volume_->output();

    // skiff-fs is killed with a push owed; started again, it sends it and removes the local
    // copies nobody recorded.
    stack_->phone().command("fault fail-chunk 1");
    const int later = ::open(notes.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(::write(later, "later\n", 6), 6);
    EXPECT_EQ(::close(later), -1);
    const auto copies = fs::path(stack_->container()) / "volume";
    std::ofstream(copies / "copy_left_by_a_crash") << "x";
    ::kill(volume_->pid(), SIGKILL);
    volume_->waitForExit(kE2eWait);
    run("fusermount3 -u -z '" + mount().string() + "'");
    // The first push after the start fails too; a retry sends it.
    stack_->phone().command("fault fail-chunk 1");
    startVolume();
    EXPECT_TRUE(testing::eventually(
        [&] { return readFile(storage() / "Documents/notes.txt") == "later\n"; }));
    EXPECT_FALSE(fs::exists(copies / "copy_left_by_a_crash"));
}

class BoundedCopies : public MountedVolume {
protected:
    // Room for two of the files below, not three.
    std::vector<std::string> options() const override { return {"-o", "copy_limit=2500000"}; }
    void prepare(const fs::path& storage) override {
        for (int i = 0; i < 5; ++i) {
            writePattern(storage / ("sized/file" + std::to_string(i)), 1'000'000, 'a');
        }
    }
};

TEST_F(BoundedCopies, CopiesOfClosedFilesStayWithinTheBoundAndChangesWaitingForThePhoneStay) {
    stack_->phone().command("fault fail-chunk 1");
    const int fd = ::open((mount() / "Documents/notes.txt").c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(::write(fd, "mine\n", 5), 5);
    EXPECT_EQ(::close(fd), -1);
    for (int i = 0; i < 5; ++i) {
        const auto name = "sized/file" + std::to_string(i);
        EXPECT_EQ(readFile(mount() / name).size(), 1'000'000u) << name;
    }
    const auto copies = [&] {
        const auto all = fs::directory_iterator(fs::path(stack_->container()) / "volume");
        return std::count_if(fs::begin(all), fs::end(all), [](const fs::directory_entry& entry) {
            return entry.path().extension() != ".pending";
        });
    };
    EXPECT_TRUE(testing::eventually([&] { return copies() <= 3; })) << copies();
    EXPECT_TRUE(testing::eventually(
        [&] { return readFile(storage() / "Documents/notes.txt") == "mine\n"; }));
}

TEST_F(MountedVolume, CallsFailWhileTheServiceIsAwayAndWorkAgainOnceItIsBack) {
    // The file's content was never read, so nothing cached can answer for the service.
    const auto notes = mount() / "Documents/notes.txt";
    stack_->service().stop();
    auto away = std::async(std::launch::async, [&] {
        const int fd = ::open(notes.c_str(), O_RDONLY);
        char byte = 0;
        const int error = fd < 0 || ::read(fd, &byte, 1) < 0 ? errno : 0;
        if (fd >= 0) {
            ::close(fd);
        }
        return error;
    });
    ASSERT_TRUE(testing::readyInTime(away));
    EXPECT_EQ(away.get(), EIO);

    stack_->restartService();
    std::ofstream(storage() / "Documents/later.txt") << "made after the restart";
    EXPECT_TRUE(testing::eventually([&] {
        return readFile(notes) == "twelve bytes" &&
               readFile(mount() / "Documents/later.txt") == "made after the restart";
    })) << volume_->output();
}

}  // namespace
}  // namespace skiff::test
