// Mount-table parsing and what counts as a local volume.

#include <gtest/gtest.h>

#include "support/volumes.h"

namespace vantor {
namespace {

// A container: overlay root, pseudo file systems, a bind mount of the host's
// disk at two places, a second disk with a blank in its mount point, NFS and
// two lines that do not parse.
TEST(MountInfo, ParsesFieldsAndListsRootAndEachLocalDeviceOnce) {
  constexpr char kContainer[] =
      "561 490 0:47 / / rw,relatime master:1 - overlay overlay rw,lowerdir=/a,upperdir=/b\n"
      "562 561 0:50 / /proc rw,nosuid,nodev,noexec,relatime - proc proc rw\n"
      "563 561 0:51 / /dev rw,nosuid - tmpfs tmpfs rw,size=65536k,mode=755\n"
      "570 561 254:1 /var/lib/docker/x /etc/hosts rw,relatime - ext4 /dev/vda1 rw\n"
      "571 561 254:1 /home /work rw,relatime - ext4 /dev/vda1 rw\n"
      "572 561 8:17 / /mnt/my\\040disk rw,relatime shared:5 - xfs /dev/sdb1 rw\n"
      "573 561 0:60 / /mnt/nfs rw,relatime - nfs4 server:/export rw\n"
      "574 561 8:18 / /boot/efi rw - vfat /dev/sdb2 rw\n"
      "garbage line without separator\n"
      "575 561 notadevice / /x rw - ext4 /dev/sdc1 rw\n";
  const auto entries = parseMountInfo(kContainer);
  ASSERT_EQ(entries.size(), 8u);
  EXPECT_EQ(entries[0].fsType, "overlay");
  EXPECT_EQ(entries[5].mountPoint, "/mnt/my disk");
  EXPECT_EQ(entries[5].major, 8u);
  EXPECT_EQ(entries[5].minor, 17u);
  EXPECT_EQ(entries[5].source, "/dev/sdb1");
  EXPECT_EQ(localVolumesFrom(entries),
            (std::vector<std::string>{"/", "/etc/hosts", "/mnt/my disk", "/boot/efi"}));

  // On a host a bind mount of the root device is not another volume, and an
  // empty table still has the root.
  constexpr char kHost[] =
      "22 1 254:1 / / rw,relatime - ext4 /dev/vda1 rw\n"
      "30 22 254:1 /srv /srv/bind rw,relatime - ext4 /dev/vda1 rw\n"
      "31 22 254:2 / /data rw,relatime - btrfs /dev/vda2 rw\n";
  EXPECT_EQ(localVolumesFrom(parseMountInfo(kHost)), (std::vector<std::string>{"/", "/data"}));
  EXPECT_EQ(localVolumesFrom({}), std::vector<std::string>{"/"});
}

}  // namespace
}  // namespace vantor
