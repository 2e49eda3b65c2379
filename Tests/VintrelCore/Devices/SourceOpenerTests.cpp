#include "Tests/Support/TestSource.h"
#include "VintrelCore/Devices/SourceOpener.h"

#include <CVintrel/Devices.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

namespace {

/// What opening answers: the sentence for the user, or the name of what was opened.
std::string answerTo(const std::string& name, bool isDevice = false)
{
    try {
        return (isDevice ? SourceOpener::openDevice(name, name) : SourceOpener::openImage(name))
            ->displayName();
    } catch (const SourceError& error) {
        return error.what();
    }
}

std::string refused(const std::string& path, int systemError)
{
    return "Kunne ikke åbne " + path + ": " + SystemError(systemError).message();
}

std::string missing(const std::string& path) { return "Filen findes ikke: " + path; }

} // namespace

TEST(SourceOpener, OpensRegularFiles)
{
    const TemporaryFolder folder;
    for (const char* name : { "--deleted", "disk4", ".dmg", "kort.dmg.bak", "æ ø" }) {
        writeFile(folder / name, bytesOf("0123456789"));
        const auto source = SourceOpener::openImage(folder / name);
        EXPECT_EQ(source->displayName(), name);
        EXPECT_EQ(source->size(), 10u);
        EXPECT_EQ(source->read(3, 2, ReadMode::thorough), bytesOf("34"));
    }
    std::filesystem::create_symlink("disk4", folder / "link");
    EXPECT_EQ(answerTo(folder / "link"), "link");
}

TEST(SourceOpener, RefusesEverythingElseWithoutWaiting)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600),
        0); // nobody writes to it: a blocking open would never end
    std::filesystem::create_symlink("loop", folder / "loop");
    std::filesystem::create_symlink("nowhere", folder / "dangling");
    writeFile(folder / "file", {});
    const std::pair<std::string, std::string> cases[] = {
        { folder.path(), refused(folder.path(), EISDIR) },
        { folder / "pipe", refused(folder / "pipe", ESPIPE) },
        { "/dev/null", refused("/dev/null", ENOTSUP) },
        { folder / "loop", refused(folder / "loop", ELOOP) },
        { folder / "dangling", missing(folder / "dangling") },
        { "./findes-ikke.dmg", missing("./findes-ikke.dmg") }, // as it was typed
        { folder / "file/inner", missing(folder / "file/inner") },
    };
    for (const auto& [path, answer] : cases)
        EXPECT_EQ(answerTo(path), answer);
    EXPECT_EQ(answerTo("disk987", true), missing("disk987"));
    if (CVintrel::rawDevicePath("null") == "/dev/null") {
        EXPECT_EQ(answerTo("null", true), refused("null", ENOTSUP));
    }
}

TEST(SourceOpener, KnowsAppleImagesByTheirNames)
{
    const TemporaryFolder folder;
    for (const char* name : { "a.DMG", "a.SparseImage", "a.asif", "a.udif", "a.sparsebundle" }) {
        std::filesystem::create_directory(folder / name);
        EXPECT_TRUE(answerTo(folder / name).starts_with("Kunne ikke tilknytte diskbilledet: "));
    }
    EXPECT_TRUE(
        answerTo(folder / "a.sparsebundle/").starts_with("Kunne ikke tilknytte diskbilledet: "));
    if (!CVintrel::helperPrograms().hdiutil.empty())
        GTEST_SKIP() << "hdiutil opens raw images too";
    const auto withMark = [](std::size_t at, std::string_view mark) {
        Bytes bytes(4'096);
        std::ranges::copy(mark, bytes.begin() + static_cast<std::ptrdiff_t>(at));
        return bytes;
    };
    for (const auto& content : { withMark(4'096 - 512, "koly"), withMark(0, "encrcdsa"),
             withMark(4'088, "cdsaencr"), withMark(0, "sprs") }) {
        writeFile(folder / "disk.dmg", content);
        EXPECT_TRUE(
            answerTo(folder / "disk.dmg").starts_with("Kunne ikke tilknytte diskbilledet: "));
    }
    for (const auto& content : { withMark(0, "koly"), Bytes(), Bytes(3) }) {
        writeFile(folder / "disk.dmg", content);
        EXPECT_EQ(answerTo(folder / "disk.dmg"), "disk.dmg");
    }
}

TEST(SourceOpener, TellsWhyADeviceIsClosed)
{
    EXPECT_STREQ(SourceError::authorizationFailed("disk4").what(),
        "Adgang til disk4 blev afvist eller annulleret. Der kræves en administratoradgangskode for "
        "at læse fysiske "
        "diske.");
}
