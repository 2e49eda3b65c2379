#include "Tests/Support/TestSource.h"
#include "VintrelCore/SourceOpener.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using enum SourceError::Kind;

/// What opening answers: the sentence for the user, or the name of what was opened.
struct Answer {
    std::optional<SourceError::Kind> kind;
    std::string text;

    bool operator==(const Answer&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Answer& answer)
{
    return out << (answer.kind ? static_cast<int>(*answer.kind) : -1) << ": " << answer.text;
}

Answer answerTo(const std::function<std::unique_ptr<DiskSource>()>& open)
{
    try {
        return { std::nullopt, open()->displayName() };
    } catch (const SourceError& error) {
        return { error.kind(), error.what() };
    }
}

Answer openImage(const std::string& path)
{
    return answerTo([&] { return SourceOpener::openImage(path); });
}

Answer refused(const std::string& path, int systemError)
{
    return { openFailed, "Kunne ikke åbne " + path + ": " + std::strerror(systemError) };
}

} // namespace

TEST(SourceError, SpeaksDanish)
{
    EXPECT_STREQ(
        SourceError::openFailed("/a/b.img", ENOENT).what(), "Kunne ikke åbne /a/b.img: No such file or directory");
    EXPECT_STREQ(SourceError::authorizationFailed("disk4").what(),
        "Adgang til disk4 blev afvist eller annulleret. Der kræves en administratoradgangskode for at læse fysiske "
        "diske.");
    EXPECT_STREQ(SourceError::notFound("b.img").what(), "Filen findes ikke: b.img");
    EXPECT_STREQ(SourceError::attachFailed("fejl").what(), "Kunne ikke tilknytte diskbilledet: fejl");
}

TEST(SourceOpener, OpensRegularFiles)
{
    const TemporaryFolder folder;
    for (const char* name : { "kort.img", "--deleted", "disk4", "dmg", ".dmg", "kort.dmg.bak", "æ ø" }) {
        const auto path = folder / name;
        writeFile(path, bytesOf("0123456789"));
        const auto source = SourceOpener::openImage(path);
        EXPECT_EQ(source->displayName(), name);
        EXPECT_EQ(source->path(), path);
        EXPECT_EQ(source->size(), 10u);
        EXPECT_EQ(source->sectorSize(), 512u);
        EXPECT_FALSE(source->isDevice());
        EXPECT_FALSE(source->bsdName());
        EXPECT_EQ(source->read(3, 2, ReadMode::thorough), bytesOf("34"));
    }
    std::filesystem::create_symlink("kort.img", folder / "link");
    EXPECT_EQ(openImage(folder / "link"), (Answer { std::nullopt, "link" }));
    writeFile(folder / "tom", {});
    EXPECT_EQ(SourceOpener::openImage(folder / "tom")->size(), 0u);
}

TEST(SourceOpener, RefusesEverythingElseWithoutWaiting)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0); // nobody writes to it: a blocking open would never end
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const auto socketPath = folder / "socket";
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    std::filesystem::create_symlink("loop", folder / "loop");
    std::filesystem::create_symlink("nowhere", folder / "dangling");
    writeFile(folder / "file", {});
    const std::string longName(300, 'x');

    const std::pair<std::string, Answer> cases[] = {
        { folder.path(), refused(folder.path(), EISDIR) },
        { folder / "pipe", refused(folder / "pipe", ESPIPE) },
        { socketPath, refused(socketPath, ESPIPE) },
        { "/dev/null", refused("/dev/null", ENOTSUP) },
        { folder / "loop", refused(folder / "loop", ELOOP) },
        { longName, refused(longName, ENAMETOOLONG) },
        { folder / "dangling", { notFound, "Filen findes ikke: " + folder / "dangling" } },
        { "./findes-ikke", { notFound, "Filen findes ikke: ./findes-ikke" } }, // as it was typed
        { folder / "file/inner", { notFound, "Filen findes ikke: " + folder / "file/inner" } },
        { "", { notFound, "Filen findes ikke: " } },
    };
    for (const auto& [path, answer] : cases)
        EXPECT_EQ(openImage(path), answer);

    if (::geteuid() != 0) { // nothing is unreadable to root
        std::filesystem::permissions(folder / "file", std::filesystem::perms::none);
        EXPECT_EQ(openImage(folder / "file"), refused(folder / "file", EACCES));
    }
}

TEST(SourceOpener, SaysThatAppleImagesAndDevicesCannotBeOpened)
{
    const TemporaryFolder folder;
    for (const char* name : { "a.dmg", "a.DMG", "a.SparseImage", "a.asif", "a.udif" }) {
        writeFile(folder / name, {});
        const auto [kind, text] = openImage(folder / name);
        EXPECT_EQ(kind, attachFailed) << name;
        EXPECT_NE(text.find(folder / name), std::string::npos) << text;
    }
    std::filesystem::create_directory(folder / "a.sparsebundle");
    EXPECT_EQ(openImage(folder / "a.sparsebundle").kind, attachFailed);
    EXPECT_EQ(openImage(folder / "b.dmg"), (Answer { notFound, "Filen findes ikke: " + folder / "b.dmg" }));

    const auto openDevice
        = [](const std::string& name) { return answerTo([&] { return SourceOpener::openDevice(name, name); }); };
    EXPECT_EQ(openDevice("disk987"), (Answer { notFound, "Filen findes ikke: /dev/disk987" }));
    EXPECT_EQ(openDevice("null"), refused("/dev/null", ENOTSUP));
}
