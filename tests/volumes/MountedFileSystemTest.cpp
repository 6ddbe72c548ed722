// How volumes are mounted: the kernel's mount table and HFS+ journals.
#include "volumes/MountedFileSystem.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <tuple>

namespace quelm {
namespace {

TEST(MountedFileSystemTest, TheDeepestAndLatestMountHoldsThePath) {
    const std::string table =
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 8:17 / /media/u/Macintosh\\040HD ro,nosuid master:7 - hfsplus /dev/sdb2 "
        "rw,umask=22\n"
        "41 22 0:50 / /mnt/apfs rw shared:9 - apfs /dev/sdc1 ro\n"
        "42 22 0:51 / /mnt/apfs rw - fuse.apfs-fuse apfs-fuse rw,user_id=0\n"
        "43 22 0:52 / /mnt/data rw - apfs /dev/sdd1 rw,vol=1,uid=501,readwrite\n"
        "44 22 0:53 / /mnt/hfs rw - hfsplus /dev/sde1 rw,uid=501\n"
        "not a mount line\n";
    // ro in the mount's own options; the later mount hides the earlier one.
    const auto hfs = findMount(table, "/media/u/Macintosh HD/Library").value();
    EXPECT_EQ(std::tie(hfs.type, hfs.source, hfs.mountPoint, hfs.readOnly),
              std::tuple("hfsplus", "/dev/sdb2", "/media/u/Macintosh HD", true));
    const auto fuse = findMount(table, "/mnt/apfs").value();
    EXPECT_EQ(std::tie(fuse.type, fuse.readOnly, fuse.replacesOwners),
              std::tuple("fuse.apfs-fuse", false, false));

    EXPECT_EQ(findMount(table, "/media/u/Macintosh HD2")->type, "ext4");
    EXPECT_TRUE(findMount(table, "/mnt/data/Library")->replacesOwners);
    EXPECT_FALSE(findMount(table, "/mnt/hfs")->replacesOwners)
        << "hfsplus's uid= names only the owner of items that have none";
    EXPECT_FALSE(findMount("", "/x"));
}

TEST(MountedFileSystemTest, TheVolumeHeaderTellsAJournaledHFSPlusVolume) {
    std::string start(1536, '\0');
    EXPECT_FALSE(isJournaledHFSPlus(start)) << "no signature";
    start.replace(1024, 2, "H+");
    start[1024 + 6] = 0x20; // attributes 0x00002000: kHFSVolumeJournaledBit
    EXPECT_EQ(isJournaledHFSPlus(start), true);
    start.replace(1024, 2, "HX");
    EXPECT_EQ(isJournaledHFSPlus(start), true) << "case-sensitive HFSX";
    EXPECT_FALSE(isJournaledHFSPlus(start.substr(0, 1030)));
}

} // namespace
} // namespace quelm
