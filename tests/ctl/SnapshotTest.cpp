#include "ctl/backup/Archive.h"
#include "ctl/backup/Directory.h"
#include "ctl/backup/Manifest.h"
#include "ctl/backup/Replacement.h"
#include "ctl/host/Files.h"
#include "torva/util/SystemError.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {
namespace {

class SnapshotTest : public testing::Test {
protected:
    SnapshotTest() {
        char name[] = "/tmp/snapshot-test.XXXXXX";
        top_ = resolved(::mkdtemp(name));
    }
    ~SnapshotTest() override { removeAll(openDirectory("/tmp").get(), nameOf(top_)); }

    std::string path(const std::string& name) const { return top_ + "/" + name; }

    void write(const std::string& name, const std::string& text) const {
        std::ofstream(path(name)) << text;
    }

    /// A tree with one of everything that can be made without root.
    std::string makeTree() const {
        ::mkdir(path("tree").c_str(), 0750);
        write("tree/file", std::string(200000, 'x'));
        write("tree/empty", "");
        write("tree/a name\nof two lines", "text");
        ::mkdir(path("tree/inner").c_str(), 0700);
        write("tree/inner/file", "inside");
        EXPECT_EQ(::symlink("no such file", path("tree/link").c_str()), 0);
        EXPECT_EQ(::mkfifo(path("tree/fifo").c_str(), 0600), 0);
        EXPECT_EQ(::chmod(path("tree/file").c_str(), 0640), 0);
        return path("tree");
    }

    std::string top_;
};

TEST_F(SnapshotTest, WhatIsNotThereIsInIt) {
    const Snapshot snapshot = describe({path("nothing"), path("no/directory")});
    EXPECT_EQ(snapshot.size(), 2U);
    EXPECT_FALSE(snapshot.at(path("nothing")).isThere());
}

TEST_F(SnapshotTest, FileThatIsNearlyAllHolesIsNotRead) {
    write("holes", "");
    ASSERT_EQ(::truncate(path("holes").c_str(), off_t{1} << 40), 0);
    EXPECT_THROW(describe({path("holes")}), SystemError);
    // As an index of Berkeley DB may be.
    ASSERT_EQ(::truncate(path("holes").c_str(), 1 << 20), 0);
    EXPECT_EQ(describe({path("holes")}).at(path("holes")).size, std::uint64_t{1} << 20);
}

TEST_F(SnapshotTest, NoMoreIsReadThanWasThereAtFirst) {
    write("growing", std::string(100000, 'x'));
    std::string checksum;
    walk({path("growing")}, [&](const std::string&, Entry& entry, int contents) {
        std::ofstream(path("growing"), std::ios::app) << "more";
        checksum = checksumOf(contents, entry.size);
    });
    write("growing", std::string(100000, 'x'));
    EXPECT_EQ(checksum, describe({path("growing")}).at(path("growing")).checksum);
}

TEST_F(SnapshotTest, PathThatCouldNotBeCreatedAgainIsRefused) {
    ASSERT_EQ(::mkdir(path("deep").c_str(), 0700), 0);
    ASSERT_EQ(::chdir(path("deep").c_str()), 0);
    const std::string name(200, 'd');
    for (int level = 0; level < 25; ++level) {
        ASSERT_EQ(::mkdir(name.c_str(), 0700), 0);
        ASSERT_EQ(::chdir(name.c_str()), 0);
    }
    ASSERT_EQ(::chdir("/"), 0);
    EXPECT_THROW(describe({path("deep")}), SystemError);
}

/// Fewer descriptors than there are levels in a tree.
class FewDescriptors {
public:
    FewDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        rlimit few = before_;
        few.rlim_cur = 64;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit before_{};
};

TEST_F(SnapshotTest, RemovesWhatIsDeeperThanThereAreDescriptors) {
    ASSERT_EQ(::mkdir(path("deep").c_str(), 0700), 0);
    write("deep/file", "text");
    ASSERT_EQ(::chdir(path("deep").c_str()), 0);
    for (int level = 0; level < 100; ++level) {
        ASSERT_EQ(::mkdir("d", 0700), 0);
        ASSERT_EQ(::mkdir(".raised0", 0700), 0);
        ASSERT_EQ(::chdir("d"), 0);
    }
    ASSERT_EQ(::chdir("/"), 0);
    const FewDescriptors few;
    removeAll(openDirectory(top_).get(), "deep");
    EXPECT_FALSE(exists(path("deep")));
    removeAll(openDirectory(top_).get(), "deep"); // a missing one is no error
}

TEST_F(SnapshotTest, RemovesWithoutFollowingLinks) {
    const std::string tree = makeTree();
    ASSERT_EQ(::mkdir(path("outside").c_str(), 0755), 0);
    write("outside/file", "text");
    ASSERT_EQ(::symlink(path("outside").c_str(), path("tree/inner/out").c_str()), 0);
    const Snapshot before = describe({path("outside")});
    removeAll(openDirectory(top_).get(), "tree");
    EXPECT_FALSE(exists(tree));
    EXPECT_TRUE(sameSnapshot(before, describe({path("outside")})));
}

TEST_F(SnapshotTest, EveryKindOfChangeIsSeen) {
    const std::string tree = makeTree();
    const Snapshot before = describe({tree});
    EXPECT_TRUE(sameSnapshot(before, describe({tree})));
    ::chmod(path("tree/empty").c_str(), 0600);
    EXPECT_FALSE(sameSnapshot(before, describe({tree})));
    const Snapshot later = describe({tree});
    write("tree/inner/file", "INSIDE");
    EXPECT_FALSE(sameSnapshot(later, describe({tree})));
}

TEST_F(SnapshotTest, ManifestKeepsIt) {
    Manifest manifest;
    manifest.reason = "before \xff";
    manifest.paths = {makeTree()};
    manifest.entries = describe(manifest.paths);
    const Manifest read = parseManifest(textOf(manifest));
    EXPECT_EQ(read.reason, manifest.reason);
    EXPECT_EQ(read.paths, manifest.paths);
    EXPECT_TRUE(sameSnapshot(read.entries, manifest.entries));
}

TEST_F(SnapshotTest, LeftStateKeepsManyRecords) {
    constexpr int many = 20000;
    LeftState state;
    state.settings["relayhost"] = "[relay.example.net]";
    state.services["smtp/inet"] = "smtp inet n - y - - smtpd\n  -o a=b";
    for (int number = 0; number < many; ++number) {
        state.records["virtual"]["user" + std::to_string(number) + "@\xff"] = "value";
    }
    state.entries = describe({makeTree()});
    const LeftState read = parseLeftState(textOf(state));
    EXPECT_EQ(read.settings, state.settings);
    EXPECT_EQ(read.services, state.services);
    EXPECT_EQ(read.records, state.records);
    EXPECT_TRUE(sameSnapshot(read.entries, state.entries));
}

TEST_F(SnapshotTest, OrderOfTheKeysInAManifestDoesNotMatter) {
    const Manifest read =
        parseManifest(R"({"reason": "before apply", "configuration": "/etc/postfix",
                          "queue": "/var/spool/postfix", "configured": false, "running": true,
                          "paths": ["/b", "/a"], "present": [],
                          "entries": {"/b": {"mode": "0"}, "/a": {"mode": "0"}}})");
    EXPECT_EQ(read.reason, "before apply");
    EXPECT_TRUE(read.running);
    EXPECT_EQ(read.paths, (std::vector<std::string>{"/b", "/a"}));
    EXPECT_EQ(read.entries.size(), 2U);
}

TEST_F(SnapshotTest, ReplacementBringsBackWhatTheArchiveHolds) {
    const std::string tree = makeTree();
    const process::Descriptor archive(::memfd_create("archive", MFD_CLOEXEC));
    const Snapshot before = writeArchive(archive.get(), {tree});
    EXPECT_TRUE(sameSnapshot(before, describe({tree})));
    write("tree/file", "changed");
    write("tree/new", "new");
    ::unlink(path("tree/link").c_str());

    Replacement replacement(tree, before);
    readArchive(archive.get(), [&](const std::string& file) {
        return replacement.holds(file) ? replacement.contentsOf(file) : ContentsConsumer();
    });
    replacement.complete();
    replacement.moveIntoPlace();
    EXPECT_TRUE(sameSnapshot(before, describe({tree})));
    replacement.removeOld();
    EXPECT_EQ(namesIn(openDirectory(top_).get()).size(), 1U);
}

TEST_F(SnapshotTest, ReplacementWithoutTheRightContentsIsNotComplete) {
    const std::string tree = makeTree();
    const Snapshot before = describe({tree});
    const auto give = [&](Replacement& replacement, const std::string& name,
                          const std::string& text) {
        const ContentsConsumer consumer = replacement.contentsOf(path(name));
        if (!text.empty()) {
            consumer(text.data(), text.size());
        }
        consumer("", 0);
    };
    const auto giveAllBut = [&](Replacement& replacement, const std::string& left) {
        for (const auto& [name, text] :
             std::map<std::string, std::string>{{"tree/file", std::string(200000, 'x')},
                                                {"tree/empty", ""},
                                                {"tree/a name\nof two lines", "text"},
                                                {"tree/inner/file", "inside"}}) {
            if (name != left) {
                give(replacement, name, text);
            }
        }
    };
    for (const char* left : {"tree/file", "tree/empty", "tree/inner/file"}) {
        Replacement replacement(tree, before);
        giveAllBut(replacement, left);
        EXPECT_THROW(replacement.complete(), std::runtime_error) << left;
    }
    {
        Replacement replacement(tree, before);
        giveAllBut(replacement, "tree/inner/file");
        give(replacement, "tree/inner/file", "INSIDE");
        EXPECT_THROW(replacement.complete(), std::runtime_error);
    }
    {
        Replacement replacement(tree, before);
        giveAllBut(replacement, "");
        EXPECT_THROW(replacement.contentsOf(path("tree/file")), std::runtime_error) << "twice";
        replacement.complete();
    }
    EXPECT_TRUE(sameSnapshot(before, describe({tree})));
}

TEST_F(SnapshotTest, ReplacementThatIsNotMovedLeavesNothing) {
    const std::string tree = makeTree();
    const Snapshot before = describe({tree});
    { const Replacement replacement(tree, before); }
    EXPECT_TRUE(sameSnapshot(before, describe({tree})));
    EXPECT_EQ(namesIn(openDirectory(top_).get()).size(), 1U);
}

TEST_F(SnapshotTest, MetadataAloneIsCorrectedInTheVeryFile) {
    write("file", "text");
    const Snapshot before = describe({path("file")});
    ::chmod(path("file").c_str(), 0600);
    struct stat status {};
    ::stat(path("file").c_str(), &status);
    const Snapshot now = describe({path("file")});
    EXPECT_TRUE(correctInPlace(path("file"), now.at(path("file")), before.at(path("file"))));
    struct stat after {};
    ::stat(path("file").c_str(), &after);
    EXPECT_EQ(status.st_ino, after.st_ino);
    EXPECT_TRUE(sameSnapshot(before, describe({path("file")})));
}

TEST_F(SnapshotTest, FileWithAnotherNameIsNotCorrectedInPlace) {
    write("file", "text");
    const Snapshot before = describe({path("file")});
    ::chmod(path("file").c_str(), 0600);
    EXPECT_EQ(::link(path("file").c_str(), path("other").c_str()), 0);
    const Snapshot now = describe({path("file")});
    EXPECT_FALSE(correctInPlace(path("file"), now.at(path("file")), before.at(path("file"))));
    EXPECT_TRUE(sameSnapshot(now, describe({path("file")})));
}

TEST_F(SnapshotTest, OwnDirectoryIsMadeTightenedOrRefused) {
    openOwnDirectory(path("own"));
    EXPECT_EQ(describe({path("own")}).at(path("own")).mode & 07777, 0700U);
    ::chmod(path("own").c_str(), 0755);
    openOwnDirectory(path("own"));
    EXPECT_EQ(describe({path("own")}).at(path("own")).mode & 07777, 0700U);
    ::chmod(path("own").c_str(), 0770);
    EXPECT_THROW(openOwnDirectory(path("own")), std::runtime_error);
    EXPECT_EQ(::symlink("own", path("link").c_str()), 0);
    EXPECT_THROW(openOwnDirectory(path("link")), std::runtime_error);
}

TEST_F(SnapshotTest, ResolvedPathGoesThroughNoLink) {
    EXPECT_EQ(::symlink("target", path("link").c_str()), 0);
    EXPECT_EQ(::symlink("link", path("second").c_str()), 0);
    EXPECT_EQ(resolved(path("second")), path("target"));
    EXPECT_EQ(resolved(path("second/below/../x")), path("target/x"));
    EXPECT_EQ(resolved("relative"), "/relative");
    EXPECT_EQ(::symlink("round", path("round").c_str()), 0);
    EXPECT_EQ(resolved(path("round")), path("round"));
}

TEST_F(SnapshotTest, PathIsBelowADirectoryByWholeComponents) {
    EXPECT_TRUE(isAtOrBelow("/etc", "/etc"));
    EXPECT_TRUE(isAtOrBelow("/etc/postfix/main.cf", "/etc"));
    EXPECT_FALSE(isAtOrBelow("/etcetera", "/etc"));
    EXPECT_FALSE(isAtOrBelow("/et", "/etc"));
    EXPECT_FALSE(isAtOrBelow("/etc", ""));
}

} // namespace
} // namespace torva::ctl
