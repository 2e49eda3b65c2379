#include "Tests/Images/FATImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/CommandLine.h"
#include "VintrelCore/Devices/DeviceAccess.h"
#include "VintrelCore/Devices/DeviceStack.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Imaging/Imager.h"
#include "VintrelCore/Model/FileTypes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <unistd.h>

namespace {

/// What runs prints to standard output and standard error.
std::pair<std::string, std::string> printed(const std::vector<std::string>& arguments)
{
    std::ostringstream out, err;
    EXPECT_EQ(run(arguments, out, err), 0) << err.str();
    return { out.str(), err.str() };
}

/// A file as a disk; `path` stays empty where the system does not let us have one.
struct LoopDevice {
    LoopDevice(const std::string& file, const std::string& sectorSize)
    {
        if (runCommand(
                "losetup --find --show --sector-size " + sectorSize + " '" + file + "'", &path)
            != 0)
            path.clear();
        path = path.substr(0, path.find('\n'));
    }
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
    ~LoopDevice() { runCommand("umount " + path + "; losetup --detach " + path); }

    std::string path;
};

std::string answerOf(const std::function<std::string()>& action)
{
    try {
        return action();
    } catch (const SourceError& error) {
        return error.what();
    }
}

} // namespace

TEST(Devices, AreReadSectorBySector)
{
    if (::geteuid() != 0 || !hasProgram("losetup"))
        GTEST_SKIP() << "only root gets loop devices";
    for (const std::uint32_t sectorSize : { 512u, 4'096u }) {
        const TemporaryFolder folder;
        FATImage image({ .type = FileSystemType::fat16, .label = "KAMERA     " });
        const auto content = patternBytes(300'000);
        const auto first = image.addFile(FATImage::root, { .name = "FOTO    JPG" }, content);
        auto bytes = image.bytes();
        bytes.resize(4_MiB);
        writeFile(folder / "disk", bytes);
        const LoopDevice disk(folder / "disk", std::to_string(sectorSize));
        if (disk.path.empty())
            GTEST_SKIP() << "this system has no loop devices to spare";
        const auto name = std::filesystem::path(disk.path).filename().string();
        const auto source = SourceOpener::openDevice(name, "Min disk");
        EXPECT_TRUE(source->isDevice());
        EXPECT_EQ(source->bsdName(), name);
        EXPECT_EQ(source->displayName(), "Min disk");
        EXPECT_EQ(source->sectorSize(), sectorSize);
        EXPECT_EQ(source->size(), bytes.size());
        // Whatever the alignment, small and large, past the cache and through it.
        for (const auto& [offset, count] :
            { std::pair(1u, 600u), { 131'000u, 262'200u }, { 513u, 2'000'000u } }) {
            EXPECT_EQ(source->read(offset, count, ReadMode::fast),
                Bytes(bytes.begin() + offset, bytes.begin() + offset + count));
            Bytes buffer(count);
            EXPECT_EQ(source->readInto(offset, buffer, ReadMode::thorough), 0u);
            EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), bytes.begin() + offset));
        }

        // The disk ends early. Its last sector is the first of a page, and has to be read without
        // the others.
        const auto readable = image.offsetOf(first) / 4'096 * 4'096 + 20'480 + sectorSize;
        std::filesystem::resize_file(folder / "disk", readable);
        printed({ "image", disk.path, folder / "kopi" });
        auto copy = readFile(folder / "kopi");
        ASSERT_EQ(copy.size(), bytes.size());
        EXPECT_TRUE(std::equal(
            copy.begin(), copy.begin() + static_cast<std::ptrdiff_t>(readable), bytes.begin()));
        EXPECT_TRUE(printed({ "scan", disk.path })
                        .first.starts_with(name + ": " + formatBytes(bytes.size()) + ", sektor "
                            + std::to_string(sectorSize) + " B\n"));
        EXPECT_TRUE(
            printed({ "recover", disk.path, folder / "ud" })
                .first.starts_with("KAMERA (FAT16): 0 gendannet, 1 med fejl, 0 mislykkedes → "));
    }
}

TEST(Devices, ThatArePulledOutStopTheImagingAndAreNotCalledBad)
{
    if (::geteuid() != 0 || !hasProgram("losetup"))
        GTEST_SKIP() << "only root gets loop devices";
    const TemporaryFolder folder;
    writeFile(folder / "disk", Bytes(8_MiB, 0xA5));
    const LoopDevice disk(folder / "disk", "512");
    if (disk.path.empty())
        GTEST_SKIP() << "this system has no loop devices to spare";
    const auto source = SourceOpener::openImage(disk.path);
    Bytes buffer(1_MiB);
    EXPECT_TRUE(source->tryRead(0, buffer));
    std::filesystem::resize_file(folder / "disk", 0);
    ASSERT_EQ(runCommand("losetup --set-capacity " + disk.path), 0);
    DiskImager imager(*source, folder / "kopi");
    imager.run([](const ImagingStats&) {});
    EXPECT_TRUE(source->hasLeft());
    EXPECT_EQ(imager.currentStats().phase, "Stoppet");
    EXPECT_EQ(imager.currentStats().readErrors, 1);
    EXPECT_EQ(imager.map().total(RangeMap::Status::nonTried), 8_MiB);
}

TEST(Devices, WarnWhenTheDestinationIsOnThem)
{
    if (::geteuid() != 0 || !hasProgram("losetup") || !hasProgram("mkfs.ext4"))
        GTEST_SKIP() << "only root gets loop devices";
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "mount");
    writeFile(folder / "disk", Bytes(4_MiB));
    const LoopDevice disk(folder / "disk", "512");
    if (runCommand("mkfs.ext4 -q " + disk.path + " && mount " + disk.path + " " + folder / "mount")
        != 0)
        GTEST_SKIP() << "this system lets us mount nothing";
    EXPECT_NE(
        printed({ "list" }).first.find("\n   " + disk.path + "\t" + formatBytes(4_MiB) + "\t"),
        std::string::npos);
    // What else there is to tell begins otherwise.
    const auto warns
        = [&](const char* command, const std::string& source, const std::string& name) {
              return printed({ command, source, name })
                  .second.starts_with("Advarsel: " + name + " ligger på den disk, der læses ("
                      + std::filesystem::path(disk.path).filename().string()
                      + "). Det, der skrives, kan overskrive det, der skal gendannes.\n");
          };
    for (const char* command : { "recover", "image" }) {
        EXPECT_TRUE(warns(command, disk.path, folder / "mount/ny/ud"));
        EXPECT_FALSE(warns(command, disk.path, folder / "ud"));
        EXPECT_FALSE(warns(command, folder / "disk", folder / "mount/ud"));
    }
}

TEST(Devices, LieOnDevices)
{
    const TemporaryFolder folder;
    const auto devices = std::filesystem::path(folder / "devices"),
               sysfs = std::filesystem::path(folder / "block");
    std::filesystem::create_directories(sysfs);
    for (const auto& [place, number] : { std::pair("nvme0", "8:0"), { "nvme0/nvme0n1", "259:0" },
             { "sdb", "8:16" }, { "sdb/sdb1", "8:17" }, { "sdb/sdb2", "8:18" }, { "dm-0", "253:0" },
             { "dm-1", "253:1" } }) {
        std::filesystem::create_directories(devices / place / "slaves");
        writeFile(devices / place / "dev", bytesOf(number + std::string("\n")));
        std::filesystem::create_symlink(devices / place, sysfs / number);
    }
    for (const char* partition : { "sdb/sdb1", "sdb/sdb2" })
        writeFile(devices / partition / "partition", bytesOf("1\n"));
    std::filesystem::create_symlink(devices / "sdb/sdb2", devices / "dm-0/slaves/sdb2");
    std::filesystem::create_symlink(devices / "dm-0", devices / "dm-1/slaves/dm-0");
    std::filesystem::create_symlink(
        devices / "dm-1", devices / "dm-0/slaves/dm-1"); // a circle, which cannot be

    for (const auto& [upper, lower, expected] :
        { std::tuple("8:17", "8:17", true), { "8:17", "8:16", true }, { "8:16", "8:17", false },
            { "8:17", "8:18", false }, { "253:1", "8:16", true }, { "253:1", "8:17", false },
            { "259:0", "8:0", false }, { "9:9", "8:0", false } })
        EXPECT_EQ(DeviceStack::liesOn(upper, lower, sysfs.string()), expected)
            << upper << " on " << lower;

    if (!VINTREL_READS_PROPERTY_LISTS)
        return;
    const auto diskutil = writeScript(folder / "diskutil", R"(
store='<key>APFSPhysicalStores</key><array><dict><key>APFSPhysicalStore</key><string>disk0s2</string></dict></array>'
[ $3 = disk3s1 ] || store=
[ "$1 $2" = 'info -plist' ] &&
echo "<plist><dict><key>ParentWholeDisk</key><string>${3%s*}</string>$store</dict></plist>")");
    for (const auto& [lower, expected] : { std::pair("disk3s1", true), { "disk0s2", true },
             { "disk0", true }, { "disk4", false }, { "disk0s3", false } })
        EXPECT_EQ(DeviceStack::liesOnByDiskutil("disk3s1", lower, diskutil), expected) << lower;
}

TEST(Devices, AreOpenedWithAuthorization)
{
    const TemporaryFolder folder;
    const auto path = folder / "disk4";
    writeFile(path, bytesOf("indhold"));
    const std::string unexpected = SourceError::openFailed(path, SystemError(EBADF)).what();
    const std::pair<std::string, std::string> cases[] = {
        { "[ \"$1\" = -stdoutpipe ] && exec " VINTREL_SEND_DESCRIPTOR " \"$2\"", "indhold" },
        { "exec " VINTREL_SEND_DESCRIPTOR " /dev/null", unexpected },
        { "echo hej", unexpected },
        { "echo annulleret >&2; exit 1", SourceError::authorizationFailed("Min disk").what() },
    };
    const auto open = [&](const std::string& authopen) {
        return answerOf([&] {
            const auto descriptor = DeviceAccess::openWithAuthorization(authopen, path, "Min disk");
            char text[16] {};
            return std::string(
                text, static_cast<std::size_t>(::pread(descriptor.get(), text, sizeof text, 0)));
        });
    };
    for (const auto& [script, answer] : cases)
        EXPECT_EQ(open(writeScript(folder / "authopen", script)), answer) << script;
    EXPECT_EQ(open(folder / "mangler"), SourceError::openFailed(path, SystemError(ENOENT)).what());
}

TEST(Devices, AreAttachedFromAppleImages)
{
    const TemporaryFolder folder;
    const auto attach = [&](const std::string& hdiutil) {
        return answerOf([&] {
            const auto image = DeviceAccess::attachImage(hdiutil, "-kort.dmg");
            image.detach();
            return image.device;
        });
    };
    const std::string failed = "Kunne ikke tilknytte diskbilledet: ", hdiutil = folder / "hdiutil";
    const std::pair<std::string, std::string> cases[] = {
        { "echo Hov >&2; echo 'hdiutil: attach failed - \33[2J' >&2; exit 1",
            failed + "hdiutil: attach failed - \\x1B[2J" },
        { "echo hej", failed + hdiutil + " gav intet diskbillede" },
    };
    for (const auto& [script, answer] : cases)
        EXPECT_EQ(attach(writeScript(hdiutil, script)), answer) << script;
    EXPECT_EQ(attach(folder / "mangler"),
        failed + folder / "mangler" + ": " + SystemError(ENOENT).message());

    if (!VINTREL_READS_PROPERTY_LISTS)
        return;
    EXPECT_EQ(attach(writeScript(hdiutil, "cd '" + folder.path() + R"('; echo "$@" >>log
echo '<plist><dict><key>system-entities</key><array>'
for device in disk12s1 disk7s1 disk7 null; do echo "<dict><key>dev-entry</key><string>/dev/$device</string></dict>"; done
echo '</array></dict></plist>')")),
        "/dev/disk7");
    EXPECT_EQ(readFile(folder / "log"),
        bytesOf("attach -readonly -nomount -plist "
            + (std::filesystem::current_path() / "-kort.dmg").string() + "\ndetach /dev/disk7\n"));
}
