#include "ctl/rehearsal/MountTable.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

std::vector<std::string> pathsOf(const std::vector<MountPoint>& mounts) {
    std::vector<std::string> paths;
    for (const MountPoint& mount : mounts) {
        paths.push_back(mount.path + " " + mount.type);
    }
    return paths;
}

using Texts = std::vector<std::string>;

TEST(MountTableTest, PathAndTypeAreRead) {
    EXPECT_EQ(pathsOf(parseMountInfo("22 1 254:0 / / rw - ext4 /dev/vda rw\n"
                                     "23 22 0:6 / /srv/a rw shared:2 master:1 - tmpfs x rw\n")),
              (Texts{"/ ext4", "/srv/a tmpfs"}));
}

TEST(MountTableTest, EscapesInPathsAreUndone) {
    EXPECT_EQ(pathsOf(parseMountInfo("1 2 0:1 / /a\\040b\\134c rw - ext4 x rw\n")),
              (Texts{"/a b\\c ext4"}));
}

TEST(MountTableTest, LinesThatAreNoneAreLeftOut) {
    EXPECT_TRUE(parseMountInfo("").empty());
    EXPECT_TRUE(parseMountInfo("\n1 2 3\n1 2 0:1 / relative rw - ext4 x rw\n").empty());
    EXPECT_TRUE(parseMountInfo("1 2 0:1 / /a rw ext4 x rw\n").empty());
}

TEST(MountTableTest, MountPointsAreKnownByTheirExactPath) {
    const std::vector<MountPoint> mounts = {{"/etc", "overlay"}, {"/var", "overlay"}};
    EXPECT_TRUE(areMountPoints(mounts, {"/etc", "/var"}));
    EXPECT_FALSE(areMountPoints(mounts, {"/etc", "/va"}));
    EXPECT_FALSE(areMountPoints(mounts, {"/etc/"}));
}

TEST(MountTableTest, PlacesAreTheTopDirectoriesAndWhatIsMountedBelowThem) {
    const std::vector<MountPoint> mounts = {
        {"/", "ext4"},         {"/home/b", "ext4"},      {"/home", "nfs"},
        {"/home/b", "tmpfs"},  {"/run/user/0", "tmpfs"}, {"/run/rpc_pipefs", "rpc_pipefs"},
        {"/dev/shm", "tmpfs"}, {"/proc", "proc"},        {"/sys/fs/cgroup", "tmpfs"}};
    EXPECT_EQ(placesToCover(mounts, {"dev", "home", "proc", "root", "run", "sys"}),
              (Texts{"/home", "/home/b", "/root", "/run", "/run/user/0"}));
}

TEST(MountTableTest, ParentsStandBeforeWhatIsBelowThem) {
    EXPECT_EQ(placesToCover({{"/a/b/c", "ext4"}, {"/a-b", "ext4"}, {"/a/b", "ext4"}}, {"a", "a-b"}),
              (Texts{"/a", "/a-b", "/a/b", "/a/b/c"}));
}

} // namespace
