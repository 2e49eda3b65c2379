// Volumes that other systems' tools make, and what those tools read from them: nothing here depends
// on our own idea of the format. No tool deletes a file without mounting the volume, so that the
// test does it as systems do: in the record's header and in the bitmap.

#include "Tests/Support/TestSource.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <bit>
#include <fstream>
#include <map>

namespace {

class ToolMadeVolume : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
        if (!hasProgram("mkntfs") || !hasProgram("ntfscp") || !hasProgram("ntfsundelete"))
            GTEST_SKIP() << "needs ntfs-3g";
        tool("truncate -s " + std::to_string(GetParam() > 4096 ? 16_MiB : 8_MiB) + " " + image);
        tool("mkntfs -F -q -Q -L 'Prøve' -c " + std::to_string(GetParam()) + " " + image);
    }

    void tool(const std::string& command)
    {
        std::string output;
        ASSERT_EQ(runCommand("export LC_ALL=C.UTF-8; " + command, &output), 0) << command << "\n"
                                                                               << output;
    }

    void addFile(const std::string& name, std::size_t size)
    {
        writeFile(folder / "ind", patternBytes(size, static_cast<std::uint32_t>(size)));
        tool("ntfscp -f -q " + image + " " + (folder / "ind") + " '" + name + "'");
    }

    /// What the other tools read of a file; `which` is a name, or options that name it.
    Bytes toolRead(const std::string& which)
    {
        tool("ntfscat -f " + image + " " + which + " > " + (folder / "ud"));
        return readFile(folder / "ud");
    }

    std::uint64_t recordOf(const std::string& name)
    {
        std::string listing;
        EXPECT_EQ(runCommand("LC_ALL=C.UTF-8 ntfsls -f -i " + image, &listing), 0) << listing;
        const auto line = listing.rfind('\n', listing.find(" " + name + "\n"));
        return std::stoull(listing.substr(line == std::string::npos ? 0 : line));
    }

    Bytes bitmap() { return toolRead("-i 6"); }

    /// Marks the record as free, and its sequence number counts up.
    void markDeleted(std::uint64_t number)
    {
        const auto source = SourceOpener::openImage(image);
        for (std::uint64_t at = 0; at < source->size(); at += 1024) {
            const auto bytes = source->read(at, 64, ReadMode::thorough);
            const ByteView record(bytes);
            if (!record.matches("FILE", 0) || record.u32le(44) != number || record.u64le(32) != 0)
                continue;
            std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(static_cast<std::streamoff>(at + 16))
                .put(static_cast<char>(record.u8(16) + 1));
            file.seekp(static_cast<std::streamoff>(at + 22)).put(0);
            return;
        }
        FAIL() << "no record " << number;
    }

    TemporaryFolder folder;
    std::string image = folder / "disk.img";
};

} // namespace

TEST_P(ToolMadeVolume, EveryFileComesBackAlsoTheDeletedOnes)
{
    const std::map<std::string, std::size_t> sizes { { "tom.txt", 0 }, { "et tegn", 1 },
        { "i posten.txt", 300 }, { "Billede fra Årø, æblehaven.jpg", 60'001 },
        { "stor.bin", 1'000'000 } };
    for (const auto& [name, size] : sizes)
        addFile(name, size);
    addFile("slettet lille.txt", 200);
    const auto before = bitmap();
    addFile("slettet.jpg", 250'000);
    const auto after = bitmap();
    // So many named streams that the file's own attributes go to extension records, with a list of
    // where they are.
    addFile("mange strømme.bin", 50'000);
    for (int i = 0; i < 20; ++i)
        tool("ntfscp -f -q -N 'strøm nummer " + std::to_string(i) + "' " + image + " "
            + (folder / "ind") + " 'mange strømme.bin'");
    // Grown by the other tool: what follows was never written.
    addFile("vokset.bin", 10'000);
    tool("ntfstruncate -f -q " + image + " " + std::to_string(recordOf("vokset.bin")) + " 90000");

    const auto deleted = recordOf("slettet.jpg");
    const auto deletedSmall = recordOf("slettet lille.txt");
    auto free = bitmap();
    std::size_t freed = 0;
    for (std::size_t i = 0; i < free.size(); ++i) {
        const auto own = static_cast<std::uint8_t>(after[i] & ~before[i]);
        freed += static_cast<std::size_t>(std::popcount(own));
        free[i] = static_cast<std::uint8_t>(free[i] & ~own);
    }
    ASSERT_EQ(freed,
        (250'000 + static_cast<std::size_t>(GetParam()) - 1)
            / static_cast<std::size_t>(GetParam()));
    writeFile(folder / "bitmap", free);
    tool("ntfscp -f -q -i " + image + " " + (folder / "bitmap") + " 6");
    markDeleted(deleted);
    markDeleted(deletedSmall);

    const auto source = SourceOpener::openImage(image);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    const auto& volume = *result.volumes[0];
    EXPECT_EQ(volume.title(), "Prøve (NTFS)");
    EXPECT_TRUE(volume.notes.empty());
    std::map<std::string, const FileNode*> found;
    for (const auto* node : volume.root->allFiles())
        EXPECT_TRUE(found.emplace(node->path().substr(1), node).second) << node->path();
    EXPECT_EQ(found.size(), sizes.size() + 4) << "and no system file";
    EXPECT_EQ(volume.root->totals().folders, 0u);

    for (const auto& [name, node] : found) {
        const bool isDeleted = name.starts_with("slettet");
        EXPECT_EQ(node->status, isDeleted ? EntryStatus::deleted : EntryStatus::existing) << name;
        EXPECT_EQ(node->recoverability, Recoverability::good) << name;
        EXPECT_EQ(node->note.has_value(), node->attachments != nullptr) << name;
        Bytes theirs;
        if (isDeleted) {
            const auto record = std::to_string(name == "slettet.jpg" ? deleted : deletedSmall);
            tool("ntfsundelete -f -q -T -u -i " + record + " -o fundet -d " + folder.path() + " "
                + image);
            theirs = readFile(folder / "fundet");
            std::filesystem::remove(folder / "fundet");
        } else {
            theirs = toolRead("'" + name + "'");
        }
        EXPECT_EQ(FileReader::readPrefix(*node, *source, 2_MiB), theirs) << name;
    }
    for (const auto& [name, size] : sizes)
        EXPECT_EQ(FileReader::readPrefix(*found[name], *source, 2_MiB),
            patternBytes(size, static_cast<std::uint32_t>(size)))
            << name;
    const auto& streams = found["mange strømme.bin"]->attachments;
    ASSERT_TRUE(streams);
    EXPECT_EQ(streams->size(), 20u);
    Bytes hidden;
    FileReader::stream({ streams->back().data, streams->back().size }, *source, 1_MiB, std::nullopt,
        [&](const FileReader::Piece& piece) {
            hidden.insert(hidden.end(), piece.bytes.begin(), piece.bytes.end());
            return true;
        });
    EXPECT_EQ(hidden, patternBytes(50'000, 50'000));
    EXPECT_EQ(FileReader::readPrefix(*found["slettet.jpg"], *source, 1_MiB),
        patternBytes(250'000, 250'000));
}

INSTANTIATE_TEST_SUITE_P(NTFS, ToolMadeVolume, ::testing::Values(512, 4096, 65536));
