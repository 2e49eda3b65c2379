// Sets of entries that the end of a cluster cuts, in directories whose chains are lost.

#include "Tests/Images/ExFATImage.h"
#include "VintrelCore/FileSystems/ExFAT/CutSets.h"

#include <gtest/gtest.h>

using namespace ExFATEntries;

namespace {

/// A set of a file entry, a stream and a name, cut behind the stream.
struct CutSet {
    Bytes head;
    Bytes rest;
};

/// A set of one file, then the beginning of another, whose content lies in `nextCluster`.
CutSet cutSet(const std::u16string& name, std::uint32_t cluster, std::uint32_t nextCluster)
{
    ExFATImage image;
    const auto folder = image.addFolder(image.root(), { .name = u"Mappe" }, 2);
    image.addSet(folder, { .name = name, .cluster = cluster, .size = 512 });
    image.addSet(folder, { .name = u"den naeste", .cluster = nextCluster, .size = 512 });
    const auto entry = [&](std::size_t number) {
        return image.bytes().begin()
            + static_cast<std::ptrdiff_t>(image.entryOffset(folder, number));
    };
    return { .head = Bytes(entry(0), entry(2)), .rest = Bytes(entry(2), entry(7)) };
}

SetCollector begun(const CutSet& set)
{
    SetCollector collector;
    for (std::int64_t at = 0; const auto entry = ByteView(set.head).load<RawEntry>(at);
         at += entrySize)
        collector.take(*entry);
    return collector;
}

const ClusterHeap heap { .offset = 0, .clusterSize = 512, .count = 1000 };

// Two bytes on, a letter counts four times as much.
const auto first = cutSet(u"IMG_0041", 100, 101);
const auto same = cutSet(u"IMG_0080", 200, 333);
const auto other = cutSet(u"FOTO", 300, 301);

} // namespace

TEST(CutSets, AreJoinedWithTheOnlyRestThatFitsThemAlone)
{
    struct Case {
        const char* what;
        std::vector<std::pair<std::uint32_t, const CutSet*>> rests;
        std::vector<std::pair<std::uint32_t, const CutSet*>> heads;
        std::optional<std::uint32_t> expected;
    };
    const Case cases[] = {
        { "its own", { { 50, &first }, { 60, &other } }, { { 10, &first } }, 50 },
        { "none", { { 60, &other } }, { { 10, &first } }, std::nullopt },
        { "another one's, with the same checksum", { { 60, &same } },
            { { 10, &first }, { 20, &same } }, std::nullopt },
        { "two, one of which the contents continue", { { 50, &first }, { 60, &same } },
            { { 10, &first }, { 20, &same } }, 50 },
        { "the cluster behind it", { { 11, &same } }, { { 10, &first }, { 20, &same } }, 11 },
        { "a claimed one", { { 40, &first } }, { { 10, &first } }, std::nullopt },
    };
    ClusterClaims claims(heap, 1 << 20);
    claims.claimed.insert(40);
    for (const auto& row : cases) {
        CutSets sets(heap);
        for (const auto& [cluster, set] : row.rests)
            sets.addRest(cluster, set->rest);
        for (const auto& [cluster, set] : row.heads)
            sets.addHead(cluster, set->head);
        EXPECT_EQ(sets.takeRest(begun(first), 10, claims), row.expected) << row.what;
        EXPECT_EQ(sets.takeRest(begun(first), 10, claims), std::nullopt) << row.what << ", again";
    }
}
