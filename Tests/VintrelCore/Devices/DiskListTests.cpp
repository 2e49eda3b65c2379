#include "Tests/Support/TestSource.h"
#include "VintrelCLI/DiskListing.h"
#include "VintrelCore/Devices/DiskList.h"
#include "VintrelCore/Devices/PropertyList/PropertyList.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

std::string shown(const std::vector<DiskRecord>& disks)
{
    setenv("LC_ALL", "C", 1);
    return describeDisks(disks);
}

/// A script that prints this text.
std::string printing(const std::string& path, const std::string& text, const std::string& then = "")
{
    return writeScript(path, "cat <<'END'\n" + text + "\nEND\n" + then);
}

std::string plist(const std::string& content)
{
    return R"(<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">)"
        + content + "</plist>";
}

constexpr const char* recordedLsblk
    = R"(KNAME="loop0" PKNAME="" PATH="/dev/loop0" TYPE="loop" SIZE="33554432" MODEL="" TRAN="" FSTYPE="vfat" PARTTYPENAME="" LABEL="KAMERA" MOUNTPOINT=""
KNAME="sda" PKNAME="" PATH="/dev/sda" TYPE="disk" SIZE="500107862016" MODEL="Samsung SSD 860 EVO 500GB" TRAN="sata" FSTYPE="" PARTTYPENAME="" LABEL="" MOUNTPOINT=""
KNAME="sda1" PKNAME="sda" PATH="/dev/sda1" TYPE="part" SIZE="536870912" MODEL="" TRAN="" FSTYPE="vfat" PARTTYPENAME="EFI System" LABEL="" MOUNTPOINT="/boot/efi"
KNAME="sda2" PKNAME="sda" PATH="/dev/sda2" TYPE="part" SIZE="499569942528" MODEL="" TRAN="" FSTYPE="crypto_LUKS" PARTTYPENAME="Linux filesystem" LABEL="" MOUNTPOINT=""
KNAME="dm-0" PKNAME="sda2" PATH="/dev/mapper/luks-1" TYPE="crypt" SIZE="499553165312" MODEL="" TRAN="" FSTYPE="ext4" PARTTYPENAME="" LABEL="" MOUNTPOINT="/"
KNAME="sdb" PKNAME="" PATH="/dev/sdb" TYPE="disk" SIZE="31914983424" MODEL="Ultra \x22Fit\x22" TRAN="usb" FSTYPE="" PARTTYPENAME="" LABEL="" MOUNTPOINT=""
KNAME="sdb1" PKNAME="sdb" PATH="/dev/sdb1" TYPE="part" SIZE="31913934848" MODEL="" TRAN="" FSTYPE="" PARTTYPENAME="HPFS/NTFS/exFAT" LABEL="\x1b[2J S\xc3\xb8" MOUNTPOINT="/media/mit kort"
KNAME="sdc" PKNAME="" PATH="/dev/sdc" TYPE="disk" RM="1" SIZE="0" MODEL="Card Reader" TRAN="usb" FSTYPE="" PARTTYPENAME="" LABEL="" MOUNTPOINT=""
KNAME="sde" PKNAME="" PATH="/dev/sde" TYPE="disk" RM="0" SIZE="0" MODEL="Dead Disk" TRAN="sata" FSTYPE="" PARTTYPENAME="" LABEL="" MOUNTPOINT=""
KNAME="loop1" PKNAME="" PATH="/dev/loop1" TYPE="loop" RM="0" SIZE="0" MODEL="" TRAN="" FSTYPE="" PARTTYPENAME="" LABEL="" MOUNTPOINT=""
KNAME="zram0" PKNAME="" PATH="/dev/zram0" TYPE="disk" SIZE="8589934592" MODEL="" TRAN="" FSTYPE="" PARTTYPENAME="" LABEL="" MOUNTPOINT="[SWAP]"
KNAME="sdd" PATH="/dev/sdd" SIZE="afbrudt \x2)";

} // namespace

TEST(DiskList, ReadsLsblkAndSmartctl)
{
    const TemporaryFolder folder;
    const auto lsblk = printing(folder / "lsblk", recordedLsblk);
    const auto smartctl = writeScript(folder / "smartctl",
        "case \"$1 $2\" in\n"
        "'-H /dev/sda') echo 'SMART overall-health self-assessment test result: PASSED'; exit "
        "64;;\n"
        "'-H /dev/sdb') echo 'SMART overall-health self-assessment test result: FAILED!'; exit "
        "24;;\n"
        "*) exit 1;; esac");
    EXPECT_EQ(shown(DiskList::fromLsblk(lsblk, smartctl)),
        "/dev/loop0\t33.6 MB\t/dev/loop0\tloop\tSMART: Not Supported\n"
        "   /dev/loop0\t33.6 MB\tvfat\tKAMERA\t\n"
        "/dev/sda\t500.11 GB\tSamsung SSD 860 EVO 500GB\tsata\tSMART: Verified\n"
        "   /dev/sda1\t536.9 MB\tvfat\t\t/boot/efi\n"
        "   /dev/sda2\t499.57 GB\tcrypto_LUKS\t\t\n"
        "   /dev/mapper/luks-1\t499.55 GB\text4\t\t/\n"
        "/dev/sdb\t31.91 GB\tUltra \"Fit\"\tusb\tSMART: Failing\n"
        "   /dev/sdb1\t31.91 GB\tHPFS/NTFS/exFAT\t\\x1B[2J Sø\t/media/mit kort\n"
        "/dev/sde\t0 bytes\tDead Disk\tsata\tSMART: Not Supported\n");
    EXPECT_EQ(DiskList::fromLsblk(lsblk, "").at(1).smartStatus, "Not Supported");
    EXPECT_TRUE(DiskList::fromLsblk(folder / "mangler", smartctl).empty());
    EXPECT_TRUE(
        DiskList::fromLsblk(printing(folder / "lsblk", recordedLsblk, "exit 1"), smartctl).empty());
}

TEST(DiskList, ReadsWhatLinuxTellsWithoutLsblk)
{
    const TemporaryFolder folder;
    const std::filesystem::path devices = folder / "devices", block = folder / "block";
    std::filesystem::create_directories(block);
    for (const auto& [place, size, more, text] :
        { std::tuple("pci/usb1/sdb", "62333952", "device/model", "Ultra Fit  \n"),
            { "pci/usb1/sdb/sdb1", "62331904", "partition", "1" },
            { "pci/usb1/sdc", "0", "removable", "1\n" }, // a reader without a card
            { "pci/ata1/sdd", "0", "removable", "0\n" }, { "virtual/block/loop0", "0", "dev", "" },
            { "virtual/block/loop1", "2048", "dev", "" }, { "virtual/block/ram0", "8", "dev", "" },
            { "virtual/block/dm-0", "62331000", "dm/name", "luks-1" },
            { "virtual/block/dm-0/slaves/sdb1", "", "dev", "" } }) {
        std::filesystem::create_directories((devices / place / more).parent_path());
        writeFile(devices / place / "size", bytesOf(size + std::string("\n")));
        writeFile(devices / place / more, bytesOf(text));
    }
    for (const char* place :
        { "pci/usb1/sdb", "pci/usb1/sdc", "pci/ata1/sdd", "virtual/block/loop0",
            "virtual/block/loop1", "virtual/block/ram0", "virtual/block/dm-0" })
        std::filesystem::create_symlink(
            devices / place, block / std::filesystem::path(place).filename());
    EXPECT_EQ(shown(DiskList::fromSysfs(block, "")),
        "/dev/loop1\t1 MB\t/dev/loop1\tloop\tSMART: Not Supported\n"
        "/dev/sdb\t31.91 GB\tUltra Fit\tusb\tSMART: Not Supported\n"
        "   /dev/sdb1\t31.91 GB\t\t\t\n"
        "   /dev/mapper/luks-1\t31.91 GB\t\t\t\n"
        "/dev/sdd\t0 bytes\t/dev/sdd\tsata\tSMART: Not Supported\n");
    EXPECT_TRUE(DiskList::fromSysfs(folder / "mangler", "").empty());
}

TEST(DiskList, ReadsDiskutil)
{
    if (!VINTREL_READS_PROPERTY_LISTS)
        GTEST_SKIP() << "libxml2 is not installed";
    const TemporaryFolder folder;
    writeFile(folder / "list", bytesOf(plist(R"(<dict><key>AllDisksAndPartitions</key><array>
<dict><key>Content</key><string>GUID_partition_scheme</string><key>DeviceIdentifier</key><string>disk0</string>
<key>OSInternal</key><false/><key>Partitions</key><array><dict><key>Content</key><string>Apple_APFS</string>
<key>DeviceIdentifier</key><string>disk0s2</string><key>Size</key><integer>494384795648</integer></dict></array>
<key>Size</key><integer>500277792768</integer></dict><dict><key>APFSVolumes</key><array><dict>
<key>DeviceIdentifier</key><string>disk3s1</string><key>MountPoint</key><string>/</string><key>Size</key>
<integer>494384795648</integer><key>VolumeName</key><string>Macintosh HD &amp; ø</string></dict></array>
<key>DeviceIdentifier</key><string>disk3</string><key>Partitions</key><array/><key>Size</key>
<integer>494384795648</integer></dict><dict><key>Content</key><string>Windows_FAT_32</string>
<key>DeviceIdentifier</key><string>disk4</string><key>MountPoint</key><string>/Volumes/KAMERA</string></dict>
<dict><key>DeviceIdentifier</key><string>-help</string></dict></array></dict>)")));
    writeFile(
        folder / "disk0", bytesOf(plist(R"(<dict><key>BusProtocol</key><string>Apple Fabric</string>
<key>MediaName</key><string>APPLE SSD</string><key>SMARTStatus</key><string>Verified</string></dict>)")));
    writeFile(folder / "disk3", bytesOf("<plist><dict>")); // cut off
    const auto diskutil = writeScript(folder / "diskutil",
        "cd '" + folder.path() + "'; case $2 in -plist) cat \"${3:-$1}\";; esac");
    EXPECT_EQ(shown(DiskList::fromDiskutil(diskutil)),
        "disk0\t500.28 GB\tAPPLE SSD\tApple Fabric\tSMART: Verified\n"
        "   disk0s2\t494.38 GB\tApple_APFS\t\t\n"
        "disk3\t494.38 GB\tdisk3\t\tSMART: Not Supported\n"
        "   disk3s1\t494.38 GB\tAPFS Volume\tMacintosh HD & ø\t/\n"
        "disk4\t0 bytes\tdisk4\t\tSMART: Not Supported\n"
        "   disk4\t0 bytes\tWindows_FAT_32\t\t/Volumes/KAMERA\n");
    EXPECT_TRUE(DiskList::fromDiskutil(folder / "mangler").empty());
}

TEST(PropertyList, OutlivesRubbish)
{
    if (!VINTREL_READS_PROPERTY_LISTS)
        GTEST_SKIP() << "libxml2 is not installed";
    std::string deep;
    for (int i = 0; i < 100'000; ++i)
        deep += "<array>";
    const std::string entities
        = R"(<!DOCTYPE plist [<!ENTITY a "aaaa"><!ENTITY f SYSTEM "file:///etc/passwd">]>)";
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        { std::string(1'000, '\0'), std::nullopt },
        { plist(deep), std::nullopt },
        { "<dict/>", std::nullopt },
        { plist("<dict><key>a</key><string>x<![CDATA[<y>]]></string></dict>"), "x<y>" },
        { plist("<array><string>x</string></array>"), "" },
        { plist("<dict><key>a<dict/></key><string/><key/></dict>"), "" },
        { entities + "<plist><dict><key>a</key><string>x&a;&f;</string></dict></plist>", "x" },
    };
    for (const auto& [text, value] : cases) {
        const auto list = PropertyList::parse(text);
        EXPECT_EQ(list ? std::optional(list->root()["a"].text()) : std::nullopt, value)
            << text.substr(0, 200);
    }
    for (const char* digits : { "18446744073709551616", "-1", "1x", "" })
        EXPECT_EQ(PropertyList::parse(plist("<integer>" + std::string(digits) + "</integer>"))
                      ->root()
                      .number(),
            0u);
}
