// What is left of volumes whose trees lack nodes.

#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedAPFS.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr std::uint64_t blockSize = APFSImage::blockSize;
using Notes = std::vector<std::string>;
const std::string older = "Filens nyeste poster er beskadiget; en ældre udgave af dem er brugt";

/// A volume of which the first leaf has a folder's names and some inodes, and the others the rest.
struct Spread {
    APFSImage image { {} };
    Bytes content = patternBytes(blockSize);

    Leaf files(std::uint64_t first, std::uint64_t count)
    {
        Leaf all;
        for (auto id = first; id < first + count; ++id)
            all = all
                + image.file({ .id = id,
                                 .parent = 2,
                                 .name = "fil " + std::to_string(id),
                                 .size = content.size() },
                    block(id));
        return all;
    }
    std::uint64_t block(std::uint64_t id)
    {
        const auto [known, isNew] = blocks.try_emplace(id, 0);
        if (isNew)
            known->second = image.store(content);
        return known->second;
    }
    std::map<std::uint64_t, std::uint64_t> blocks {};
};

} // namespace

TEST(APFSDamage, OlderLeavesGiveWhatTheLiveTreeLacks)
{
    // The leaves are cut anew by the newest commit, so that no version of a node has all that the
    // lost one had. One file was deleted before, one was made after.
    Spread disk;
    auto& image = disk.image;
    image.commit(APFSImage::split(disk.files(20, 31), 7));
    image.commit(APFSImage::split(disk.files(20, 30), 7));
    image.commit(APFSImage::split(disk.files(21, 30), 9));
    const auto sound = parse(image);
    ASSERT_EQ(sound["/fil 20"].status, EntryStatus::deleted);
    for (std::size_t leaf = 0; leaf < 10; ++leaf) {
        SCOPED_TRACE(leaf);
        auto damaged = image;
        breakChecksum(damaged, image.leafBlock(leaf));
        const auto found = parse(damaged);
        for (std::uint64_t id = 21; id < 50; ++id) {
            const auto path = "/fil " + std::to_string(id);
            EXPECT_EQ(found[path].status, EntryStatus::existing) << path;
            EXPECT_EQ(found.content(path), disk.content) << path;
            EXPECT_EQ(found[path].recoverability, Recoverability::good) << path;
            EXPECT_TRUE(!found[path].note || found[path].note == older) << chance(found[path]);
        }
    }
}

TEST(APFSDamage, WhatTheNewestOlderLeafHasNoMoreDoesNotExist)
{
    Spread disk;
    auto& image = disk.image;
    const auto kept = disk.files(20, 2);
    image.commit({ kept, disk.files(30, 3) });
    image.commit({ kept, disk.files(30, 1) + disk.files(32, 1) });
    image.commit({ kept, disk.files(30, 1) + disk.files(32, 2) });
    breakChecksum(image, image.leafBlock(1));
    const auto found = parse(image);
    EXPECT_EQ(found["/fil 30"].status, EntryStatus::existing);
    EXPECT_EQ(found["/fil 31"].status, EntryStatus::deleted);
    EXPECT_EQ(found["/fil 32"].status, EntryStatus::existing);
}

TEST(APFSDamage, AnOlderRecordIsDoubtedWhereItsBlocksAreFreeOrAnothers)
{
    for (const bool isFree : { true, false }) {
        Spread disk;
        auto& image = disk.image;
        image.commit(APFSImage::split(disk.files(20, 3), 4));
        auto newer = disk.files(20, 2);
        if (!isFree)
            newer = newer + Leaf { APFSImage::extent(20, blockSize, blockSize, disk.block(22)) };
        if (isFree)
            image.setFree(disk.block(22));
        const auto moved = image.store(disk.content);
        image.commit({ newer,
            image.file({ .id = 22, .parent = 2, .name = "fil 22", .size = blockSize }, moved) });
        breakChecksum(image, image.leafBlock(1));
        const auto found = parse(image);
        EXPECT_EQ(
            chance(found["/fil 22"]), "Delvis: " + older + "; Dele af filen kan være overskrevet");
    }
}

TEST(APFSDamage, LooseLeavesGiveWhatNoOlderStateHas)
{
    Spread disk;
    auto& image = disk.image;
    image.commit({ disk.files(20, 4), disk.files(24, 4) });
    for (std::uint64_t i = 0; i < 8; ++i) // until the checkpoint area has forgotten it
        image.commit({ disk.files(20, 4),
            disk.files(24, 4)
                + image.file({ .id = 40, .parent = 2, .name = "ny " + std::to_string(i) }) });
    for (std::uint64_t block = image.leafBlock(0) + 1; block < 300; ++block)
        if (APFSParser::looksLikeFSTreeLeaf(
                ByteView(image.bytes())
                    .sub(static_cast<std::int64_t>(image.offsetOf(block)), blockSize))
            && block > image.leafBlock(0) + 1)
            breakChecksum(image, block);
    EXPECT_EQ(parse(image).names().find("fil 24"), std::string::npos);
    const Found found(image.bytes());
    for (std::uint64_t id = 20; id < 28; ++id)
        EXPECT_EQ(found.count("/fil " + std::to_string(id), disk.content), 1) << id;
    const auto& root = *found.volumes.at(0)->root;
    EXPECT_EQ(root.totals().deleted, 0u);
    EXPECT_EQ(root.totals().files, 8u);
}

TEST(APFSDamage, AContainerWithoutSuperblocksIsRebuilt)
{
    // Two volumes with the same numbers, and files that only older leaves have.
    APFSImage built({ .blocks = 500, .volumes = 2 });
    const auto content = patternBytes(blockSize);
    const auto files = [&](std::uint64_t first, std::uint64_t count, const char* folder,
                           std::uint64_t created) {
        Leaf all { built.entry(2, folder, 16, true),
            APFSImage::inode(
                { .id = 16, .parent = 2, .name = folder, .mode = 0x41ED, .created = created }) };
        for (auto id = first; id < first + count; ++id)
            all = all
                + built.file({ .id = id,
                                 .parent = 16,
                                 .name = "fil " + std::to_string(id),
                                 .size = blockSize,
                                 .created = created + id },
                    built.store(content));
        return all;
    };
    const auto one = files(20, 20, "en", 1'000);
    built.commit(APFSImage::split(one + files(60, 1, "en", 1'000), 9), 0);
    built.commit(APFSImage::split(one, 9), 0);
    built.commit(APFSImage::split(files(20, 12, "to", 2'000), 7), 1);
    erase(built.bytes(), 0, built.offsetOf(1 + 2 * APFSImage::descriptorBlocks));
    const auto without = [&](std::initializer_list<std::uint16_t> types) {
        auto bytes = built.bytes();
        for (std::uint64_t at = 0; at < bytes.size(); at += blockSize)
            if (std::ranges::count(types, ByteView(bytes).u16le(static_cast<std::int64_t>(at) + 24))
                != 0)
                erase(bytes, at, at + blockSize);
        return bytes;
    };
    const struct {
        const char* what;
        std::initializer_list<std::uint16_t> lost; // types of objects
        bool isPlaceCertain, isNamed;
    } rows[] = {
        { "the beginning", {}, true, true },
        { "superblocks of volumes too", { 13 }, true, false },
        { "object maps too", { 11 }, false, true },
        { "all but leaves", { 11, 13, 2 }, false, false },
    };
    for (const auto& [what, lost, isPlaceCertain, isNamed] : rows) {
        SCOPED_TRACE(what);
        const Found found(without(lost));
        ASSERT_EQ(found.volumes.size(), 2u);
        for (std::uint64_t id = 20; id < 40; ++id)
            EXPECT_EQ(found.count("/en/fil " + std::to_string(id), content), 1) << id;
        for (std::uint64_t id = 20; id < 32; ++id)
            EXPECT_EQ(found.count("/to/fil " + std::to_string(id), content), 1) << id;
        EXPECT_EQ(found.files.size(), 33u);
        for (const auto& volume : found.volumes) {
            EXPECT_EQ(volume->origin, "Dyb scanning, løse APFS-metadata");
            EXPECT_EQ(volume->label, isNamed ? "DISK" : "");
            for (const auto* file : volume->root->allFiles())
                EXPECT_EQ(
                    chance(*file).starts_with(isPlaceCertain ? "God" : "Delvis: Filsystemets"),
                    file->status == EntryStatus::existing)
                    << chance(*file);
        }
    }
}

TEST(APFSDamage, ALeafThatCanBeOfTwoVolumesGivesNeitherItsContent)
{
    APFSImage image({ .volumes = 2 });
    for (std::uint64_t volume = 0; volume < 2; ++volume) {
        const auto content = patternBytes(blockSize, static_cast<std::uint32_t>(volume));
        const auto file = image.file(
            { .id = 20, .parent = 2, .name = "fil", .size = blockSize, .created = 5 + volume });
        image.commit(
            { file, { APFSImage::extent(20, 0, blockSize, image.store(content)) } }, volume);
    }
    for (std::uint64_t block = 0; block < 300; ++block) // nothing is left but leaves
        if (!APFSParser::looksLikeFSTreeLeaf(
                ByteView(image.bytes())
                    .sub(static_cast<std::int64_t>(image.offsetOf(block)), blockSize)))
            breakChecksum(image, block);
    erase(image.bytes(), 0, blockSize);
    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 2u);
    for (const auto& volume : found.volumes)
        EXPECT_EQ(chance(*volume->root->allFiles().at(0)).substr(0, 32),
            "Ringe: Filens blokke kendes ikke");
}

TEST(APFSDamage, AnEarlierContainerBelowANewOneIsRebuilt)
{
    APFSImage before({ .blocks = 300, .name = "FØR" });
    const auto content = patternBytes(blockSize);
    const auto kept = before.store(content);
    const auto overwritten = before.store(content);
    for (int i = 0; i < 3; ++i) // so that it uses blocks which the new one has not reached
        before.commit({ before.file(
            { .id = 20, .parent = 2, .name = "hel", .size = blockSize }, kept + 100) });
    before.write(before.offsetOf(kept + 100), content);
    before.commit({ before.file(
                        { .id = 20, .parent = 2, .name = "hel", .size = blockSize }, kept + 100)
        + before.file({ .id = 21, .parent = 2, .name = "væk", .size = blockSize }, overwritten) });
    APFSImage after({ .blocks = 300, .name = "NU", .generation = 1 });
    after.commit({ after.file({ .id = 20, .parent = 2, .name = "ny", .created = 5 }) });
    std::copy_n(after.bytes().begin(), after.offsetOf(35), before.bytes().begin());
    const Found found(before.bytes());
    ASSERT_EQ(found.volumes.size(), 2u);
    EXPECT_EQ(found.volumes[0]->title(), "NU (APFS)");
    EXPECT_EQ(found.volumes[0]->root->totals().files, 1u);
    EXPECT_EQ(found.volumes[1]->title(), "FØR (APFS)");
    EXPECT_EQ(found.count("/hel", content), 1);
    for (const auto* file : found.volumes[1]->root->allFiles())
        EXPECT_EQ(
            file->recoverability, file->name == "hel" ? Recoverability::good : Recoverability::poor)
            << chance(*file);
}

TEST(APFSDamage, ADeepScanListsSnapshotsWithTheFilesThatAreOthersNow)
{
    APFSImage image({ .snapshots = 2, .name = "DISK" });
    const auto first = patternBytes(blockSize, 1);
    const auto second = patternBytes(blockSize, 2);
    const auto oldBlock = image.store(first);
    const auto newBlock = image.store(second);
    const auto file = [&](std::uint64_t id, const char* name, std::uint64_t block) {
        return image.file({ .id = id, .parent = 16, .name = name, .size = blockSize }, block);
    };
    const auto folders = image.folder(16, 2, "mappe") + image.folder(17, 2, "tom");
    image.commit({ folders, file(20, "samme", oldBlock) + file(21, "ændret", oldBlock), {} });
    image.takeSnapshot("mandag");
    image.commit({ folders, file(20, "samme", oldBlock) + file(21, "ændret", newBlock),
        file(22, "kort", newBlock) });
    image.takeSnapshot("tirsdag");
    image.commit({ folders, file(20, "samme", oldBlock) + file(21, "ændret", newBlock), {} });
    const Notes told { "Volumen har snapshots. De vises ikke for sig." };
    EXPECT_EQ(parse(image).volume->notes, told);
    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 3u);
    EXPECT_TRUE(found.volumes[0]->notes.empty());
    const struct {
        const char* title;
        const char* path;
        Bytes content;
    } rows[] = { { "DISK, mandag (APFS)", "/mappe/ændret", first },
        { "DISK, tirsdag (APFS)", "/mappe/kort", second } };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const auto& volume = *found.volumes[i + 1];
        EXPECT_EQ(volume.title(), rows[i].title);
        EXPECT_EQ(volume.origin, "Snapshot");
        ASSERT_EQ(volume.root->allFiles().size(), 1u);
        const auto& only = *volume.root->allFiles()[0];
        EXPECT_EQ(only.path(), rows[i].path);
        EXPECT_EQ(chance(only), "God");
        const auto source = image.source();
        EXPECT_EQ(FileReader::readPrefix(only, *source, blockSize), rows[i].content);
    }
}
