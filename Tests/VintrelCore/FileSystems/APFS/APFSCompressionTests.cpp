// Files that macOS compressed, and what it keeps beside the content of others.

#include "Tests/Images/PackedContent.h"
#include "Tests/Support/ParsedAPFS.h"
#include "VintrelCore/Foundation/Compression/Compression.h"

#include <gtest/gtest.h>

using namespace PackedContent;

namespace {

constexpr std::uint64_t blockSize = APFSImage::blockSize;
constexpr std::uint64_t packedBlock = 65'536; // bytes of the content in each block of a fork
const std::string notUnpacked = "Ringe: APFS-komprimeret fil – indholdet ligger i en skjult "
                                "attribut og kan ikke gendannes direkte";

/// A zlib stream (RFC 1950) of one block that is not compressed (RFC 1951, 3.2.4).
Bytes zlibStream(const Bytes& content)
{
    Bytes stream { 0x78, 0x01, 0x01 };
    addLE(stream, content.size(), 2);
    addLE(stream, ~content.size(), 2);
    add(stream, content);
    std::uint32_t low = 1, high = 0;
    for (const auto byte : content) {
        low = (low + byte) % 65'521;
        high = (high + low) % 65'521;
    }
    stream.resize(stream.size() + 4);
    putBE(stream, stream.size() - 4, high << 16 | low, 4);
    return stream;
}

/// The data of a classic resource fork with one resource: a table and blocks.
Bytes zlibFork(const std::vector<Bytes>& blocks)
{
    Bytes fork(256 + 4);
    putBE(fork, 0, 256, 4);
    addLE(fork, blocks.size(), 4);
    std::uint64_t at = 4 + 8 * blocks.size();
    for (const auto& block : blocks) {
        addLE(fork, at, 4);
        addLE(fork, block.size(), 4);
        at += block.size();
    }
    for (const auto& block : blocks)
        add(fork, block);
    return fork;
}

} // namespace

TEST(APFSCompression, UnpacksAttributesAndForks)
{
    const auto small = patternBytes(900);
    const auto large = patternBytes(packedBlock + 700);
    const Bytes first(large.begin(), large.begin() + packedBlock);
    const Bytes last(large.begin() + packedBlock, large.end());
    // A stored block of zlib is at most 65,535 bytes long, so that the first one is marked.
    const auto zlib = zlibFork({ marked(0xFF, first), zlibStream(last) });
    auto damaged = zlib;
    damaged.back() ^= 1;
    auto zeroed = last;
    std::ranges::fill(zeroed, std::uint8_t { 0 });
    const bool hasZlib = Compression::hasZlib();
    const struct {
        const char* what;
        std::uint32_t type;
        Bytes attribute, fork, content;
        bool isUnpacked = true;
        std::uint64_t lost = 0;
    } rows[] = {
        { "stored in the attribute", 1, small, {}, small },
        { "marked in the attribute", 9, marked(0xCC, small), {}, small },
        { "stored in the fork", 10, {}, plainFork({ marked(0xCC, first), last }), large },
        { "zlib in the attribute", 3, zlibStream(small), {}, small, hasZlib },
        { "zlib that gained nothing", 3, marked(0x0F, small), {}, small, hasZlib },
        { "zlib in the fork", 4, {}, zlib, large, hasZlib },
        { "a damaged block", 4, {}, damaged, joined({ first, zeroed }), hasZlib, last.size() },
        { "LZVN that gained nothing", 7, marked(0x06, small), {}, small, Compression::hasLZFSE() },
        { "LZFSE that gained nothing", 12, {},
            plainFork({ marked(0xFF, first), marked(0xFF, last) }), large,
            Compression::hasLZFSE() },
        { "an unknown method", 14, {}, plainFork({ first, last }), large, false },
    };
    for (const auto& [what, type, attribute, fork, content, isUnpacked, lost] : rows) {
        SCOPED_TRACE(what);
        APFSImage image({});
        auto leaf = image.file({ .id = 20, .parent = 2, .name = "pakket", .bsdFlags = 0x20 });
        leaf.push_back(
            image.attribute(20, "com.apple.decmpfs", header(type, content.size(), attribute)));
        if (!fork.empty()) {
            const auto blocks = (fork.size() + blockSize - 1) / blockSize;
            leaf.push_back(image.attributeStream(20, "com.apple.ResourceFork", 90, fork.size()));
            leaf.push_back(image.extent(90, 0, blocks * blockSize, image.store(fork)));
        }
        image.commit({ leaf });
        const auto disk = parse(image);
        const auto& node = disk["/pakket"];
        EXPECT_EQ(node.size, content.size());
        EXPECT_EQ(chance(node), isUnpacked ? "God" : notUnpacked);
        EXPECT_EQ(disk.content("/pakket"), isUnpacked ? content : Bytes {});
        EXPECT_EQ(FileReader::stream(node, *disk.source, 1_MiB, std::nullopt,
                      [](const FileReader::Piece&) { return true; }),
            isUnpacked ? lost : 0);
    }
}

TEST(APFSCompression, ADeletedFileIsJudgedByTheBlocksOfItsFork)
{
    for (const bool isReused : { false, true }) {
        APFSImage image({});
        const auto content = patternBytes(700);
        const auto fork = plainFork({ content });
        const auto block = image.store(fork);
        image.commit({ image.file({ .id = 20, .parent = 2, .name = "pakket", .bsdFlags = 0x20 })
            + Leaf { image.attribute(20, "com.apple.decmpfs", header(10, content.size())),
                image.attributeStream(20, "com.apple.ResourceFork", 90, fork.size()),
                image.extent(90, 0, blockSize, block) } });
        if (!isReused)
            image.setFree(block);
        image.commit({ {} });
        const auto disk = parse(image);
        EXPECT_EQ(chance(disk["/pakket"]),
            isReused ? "Ringe: Blokkene er genbrugt af andre filer" : "God");
        EXPECT_EQ(disk.content("/pakket"), content);
    }
}

TEST(APFSAttributes, BelongToTheirFilesAndFolders)
{
    APFSImage image({});
    const auto stream = image.store(bytesOf("stor"));
    const auto fork = image.store(bytesOf("gren"));
    const std::string ring = "com.apple.ResourceFork";
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "fil" })
        + Leaf { image.attribute(20, "com.apple.system.Security", "acl"),
            image.attribute(20, "bemærkning", "abc"),
            image.attributeStream(20, "lang", 90, blockSize),
            image.extent(90, 0, blockSize, stream), image.attributeStream(20, ring, 91, blockSize),
            image.extent(91, 0, blockSize, fork) }
        + image.folder(21, 2, "mappe") + Leaf { image.attribute(21, "farve", "rød") }
        + image.file({ .id = 22, .parent = 2, .name = "pakket", .bsdFlags = 0x20 })
        + Leaf { image.attribute(22, "com.apple.decmpfs", header(14, 9)),
            image.attribute(22, ring, "x") }
        + image.file({ .id = 23, .parent = 2, .name = "tom" })
        + Leaf { image.attribute(23, ring, "") } });
    const auto disk = parse(image);
    EXPECT_EQ(attachments(disk, "/fil"), "gren=gren;bemærkning=abc;lang=stor;");
    EXPECT_EQ(chance(disk["/fil"]), "God: Filen har kun en ressourcegren på 4096 bytes");
    EXPECT_EQ(attachments(disk, "/mappe"), "farve=r__d;");
    EXPECT_EQ(attachments(disk, "/tom"), "");
    EXPECT_EQ(attachments(disk, "/pakket"), "com.apple.decmpfs=fpmc_;gren=x;");
    EXPECT_EQ(chance(disk["/pakket"]), notUnpacked) << "such a fork is no more than the content";
}
