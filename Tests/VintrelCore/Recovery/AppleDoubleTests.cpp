#include "Tests/VintrelCore/Recovery/RecoveryFixture.h"

#include <gtest/gtest.h>

namespace {

Attachment attribute(const std::string& name, FileData data, std::uint64_t size)
{
    return {
        .kind = Attachment::Kind::attribute, .name = name, .data = std::move(data), .size = size
    };
}

Attachment fork(FileData data, std::uint64_t size)
{
    return {
        .kind = Attachment::Kind::resourceFork, .name = {}, .data = std::move(data), .size = size
    };
}

const RecoveryOptions withStreams { .streams = true };

} // namespace

// The offsets are those of RFC 1740 and, for the attributes, of files that macOS made.
TEST_F(Recovery, WritesForkAndAttributesBesideTheirFile)
{
    auto& file = addFile(*root, "skrift");
    Bytes information(32);
    information[0] = 'F';
    file.attach(attribute("com.apple.FinderInfo", information, 32));
    file.attach(attribute("kort", bytesOf("abc"), 3));
    file.attach(attribute("langt navn", ExtentList { { 4096, 1000 } }, 1000));
    file.attach(fork(ExtentList { { 8192, 1_MiB }, { std::nullopt, 9 } }, 1_MiB + 9));
    source->addSimulatedBadRange({ 8192, 8193 });
    const auto result = recover(withStreams);
    EXPECT_EQ(result.recovered, 1);
    EXPECT_EQ(result.withErrors, 1);

    const auto bytes = readFile(target / "r/._skrift");
    const ByteView made(bytes);
    const std::uint64_t first = 120 + 16 + 24; // headers and two descriptors
    const std::uint64_t forkStart = first + 3 + 1000;
    const struct {
        std::int64_t at;
        std::uint64_t value;
    } numbers[] = { { 0, 0x00051607 }, { 4, 0x00020000 }, // AppleDouble, version 2
        { 26, 9 }, { 30, 50 }, { 34, forkStart - 50 },    // Finder information
        { 38, 2 }, { 42, forkStart }, { 46, 1_MiB + 9 },  // resource fork
        { 84, 0x41545452 }, { 92, forkStart }, { 96, first }, { 100, 1003 }, { 116, 2 }, // ATTR
        { 120, first }, { 124, 3 }, { 136, first + 3 }, { 140, 1000 } };
    for (const auto& [at, value] : numbers)
        EXPECT_EQ(made.u32be(at), value) << at;
    EXPECT_EQ(made.u16be(24), 2);
    EXPECT_EQ(made.u8(50), 'F');
    EXPECT_EQ(made.ascii(131, 5), "kort");
    EXPECT_EQ(made.u8(130), 5);
    EXPECT_EQ(made.ascii(147, 11), "langt navn");
    ASSERT_EQ(bytes.size(), forkStart + 1_MiB + 9);
    EXPECT_TRUE(made.matches("abc", static_cast<std::int64_t>(first)));
    EXPECT_TRUE(made.matches(ByteView(disk).sub(4096, 1000), static_cast<std::int64_t>(first) + 3));
    EXPECT_TRUE(made.matches(
        ByteView(disk).sub(8704, 1_MiB - 512), static_cast<std::int64_t>(forkStart) + 512));
    EXPECT_NE(text(target / "r/Gendannelsesrapport.csv")
                  .find("._skrift;" + std::to_string(bytes.size())
                      + ";Ulæselige sektorer;God;512;Ressourcegren"),
        std::string::npos);
}

TEST_F(Recovery, NamesAttachmentsAfterTheNamesThatTheirOwnersGot)
{
    const auto give = [](FileNode& node) { node.attach(attribute("a", bytesOf("b"), 1)); };
    addFile(*root, "to.txt");
    give(addFile(*root, "to.txt"));
    addFile(*root, "uden.txt");
    auto& folder = addFolder(*root, "ma/ppe");
    give(folder);
    give(addFile(folder, "inde"));
    RecoveryProgress last;
    const auto result = recover(withStreams, [&](const RecoveryProgress& state) { last = state; });
    EXPECT_EQ(result.recovered, 7);
    EXPECT_EQ(last.filesDone, 7);
    EXPECT_EQ(last.filesTotal, 7);
    EXPECT_EQ(last.bytesDone, last.bytesTotal);
    EXPECT_EQ(filesIn(target / "r"),
        (std::vector<std::string> { "._ma:ppe", "._to (2).txt", "ma:ppe/._inde", "ma:ppe/inde",
            "to (2).txt", "to.txt", "uden.txt" }));
    EXPECT_EQ(recover({ .keepFolderStructure = false, .streams = true }).recovered, 6)
        << "a folder that is not made";
    EXPECT_EQ(recover().recovered, 4) << "without the option";
}

TEST_F(Recovery, WritesNamedStreamsBesideTheirFile)
{
    const auto stream = [](const std::string& name) {
        return Attachment { .kind = Attachment::Kind::stream,
            .recoverability = Recoverability::partial,
            .name = name,
            .data = ExtentList { { 4096, 2000 } },
            .size = 2000 };
    };
    auto& file = addFile(*root, "fil");
    file.attach(stream("foto.jpg"));
    file.attach(stream("../ud"));
    addFile(*root, "fil.foto.jpg");
    RecoveryProgress last;
    const auto result = recover(withStreams, [&](const RecoveryProgress& state) { last = state; });
    EXPECT_EQ(result.recovered, 4);
    EXPECT_EQ(last.filesDone, last.filesTotal);
    EXPECT_EQ(last.bytesDone, last.bytesTotal);
    EXPECT_EQ(filesIn(target / "r"),
        (std::vector<std::string> { "fil", "fil...:ud", "fil.foto (2).jpg", "fil.foto.jpg" }));
    EXPECT_EQ(
        readFile(target / "r/fil...:ud"), Bytes(disk.begin() + 4096, disk.begin() + 4096 + 2000));
    EXPECT_NE(text(target / "r/Gendannelsesrapport.csv")
                  .find("fil...:ud;2000;OK;Delvis;0;Navngiven datastrøm"),
        std::string::npos);
    EXPECT_EQ(recover().recovered, 2) << "without the option";
}

TEST_F(Recovery, LeavesOutWhatAppleDoubleCannotHold)
{
    auto& file = addFile(*root, "stor");
    file.attach(attribute(std::string(255, 'n'), bytesOf("x"), 1));
    file.attach(attribute("hul", ExtentList { { std::nullopt, 1ull << 40 } }, 1ull << 40));
    file.attach(attribute("god", bytesOf("ja"), 2));
    EXPECT_EQ(recover(withStreams).recovered, 2);
    const auto bytes = readFile(target / "r/._stor");
    EXPECT_EQ(bytes.size(), 120u + 16 + 2);
    EXPECT_EQ(ByteView(bytes).u16be(118), 1);
    EXPECT_NE(text(target / "r/Gendannelsesrapport.csv").find("._stor;138;OK;Delvis;0;"),
        std::string::npos);
}

TEST_F(Recovery, UnpacksAttachedContentOnlyWhereItIsAskedFor)
{
    auto& file
        = addFile(*root, "fil", ExtentList {}, 0); // listed as the disk has it: without content
    file.recoverability = Recoverability::poor;
    Decmpfs::Header header;
    header.size = 5;
    file.attach({ .kind = Attachment::Kind::packedContent,
        .name = {},
        .data = DecmpfsContent { header, joined({ Bytes { 0xCC }, bytesOf("indre") }) },
        .size = 5 });
    recover();
    EXPECT_EQ(text(target / "r/fil"), "");
    EXPECT_EQ(recover(withStreams).recovered, 1);
    EXPECT_EQ(text(target / "r (2)/fil"), "indre");
    EXPECT_EQ(text(target / "r (2)/Gendannelsesrapport.csv"),
        "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n"
        "fil;5;OK;God;0;Var pakket af HFS+ og er pakket ud\n");
    EXPECT_EQ(filesIn(target / "r (2)"), std::vector<std::string> { "fil" });
}
