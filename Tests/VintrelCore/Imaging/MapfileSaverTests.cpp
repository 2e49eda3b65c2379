#include "Tests/Support/TestSource.h"
#include "VintrelCore/Imaging/Imager.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

TEST(MapfileSaver, SaysThatProgressIsSavedOnlyWhenItIs)
{
    const TemporaryFolder folder;
    const auto image = folder / "disk.img";
    const auto mapfile = image + ".map";
    const auto disk = patternBytes(64_KiB);
    const auto source = makeSource(disk);
    enum class Obstacle { folderForMapfile, otherImage, none };
    using enum Obstacle;
    const auto replaceImage = [&] {
        writeFile(image + ".new", {});
        std::filesystem::rename(image + ".new", image);
    };
    const std::tuple<Obstacle, bool, std::string, std::vector<std::string>> rows[] = {
        { none, true, "Stoppet. Du kan fortsætte senere – fremskridtet er gemt i disk.img.map.",
            {} },
        { folderForMapfile, true, "Stoppet. Du kan fortsætte senere.",
            { "fremskridtet kunne ikke gemmes i " + mapfile + ": "
                + SystemError(EISDIR).message() } },
        { folderForMapfile, false, "",
            { "fremskridtet kunne ikke gemmes i " + mapfile + ": "
                + SystemError(EISDIR).message() } },
        { otherImage, false, "", { image + " er ikke længere den fil, der blev skrevet til" } },
        { otherImage, true, "Stoppet. Du kan fortsætte senere.",
            { image + " er ikke længere den fil, der blev skrevet til" } },
    };
    for (const auto& [obstacle, isCancelled, message, expected] : rows) {
        SCOPED_TRACE(message);
        std::filesystem::remove_all(mapfile);
        std::filesystem::remove(image);
        if (obstacle == folderForMapfile)
            std::filesystem::create_directory(mapfile);
        DiskImager imager(*source, image);
        imager.setPaused(isCancelled || obstacle == otherImage);
        std::vector<std::string> warnings;
        imager.run(
            [&, what = obstacle, cancels = isCancelled](const ImagingStats& stats) {
                if (!stats.finished && what == otherImage)
                    replaceImage();
                imager.setPaused(false);
                if (cancels)
                    imager.cancel();
            },
            [&](const std::string& warning) { warnings.push_back(warning); });
        EXPECT_EQ(imager.currentStats().message.value_or(""), message);
        EXPECT_EQ(warnings, expected);
        if (!isCancelled && obstacle == otherImage) {
            EXPECT_EQ(RangeMap::read(mapfile, disk.size())->total(RangeMap::Status::finished), 0u);
        } else if (!isCancelled) {
            EXPECT_EQ(readFile(image), disk);
        }
    }
}

TEST(DiskImager, LeavesItsFilesToWhoeverCalledThroughSudo)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs to be root";
    const TemporaryFolder folder;
    const auto image = folder / "disk.img";
    const auto source = makeSource(patternBytes(4_KiB));
    setenv("SUDO_UID", "4321", 1);
    setenv("SUDO_GID", "1234", 1);
    DiskImager(*source, image).run([](const ImagingStats&) {});
    unsetenv("SUDO_UID");
    unsetenv("SUDO_GID");
    for (const auto& path : { image, image + ".map" }) {
        struct stat status { };
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 4321u) << path;
        EXPECT_EQ(status.st_gid, 1234u) << path;
    }
}
