#pragma once

#include "Tests/Images/DiskImage.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// Builds an NTFS volume in memory, record by record, sound or damaged. It has what the reader
/// needs ($MFT, $MFTMirr, $Volume, the root, $Bitmap, $Extend) and no directory indices.
class NTFSImage : public DiskImage {
public:
    using Runs = RunList;

    struct Options {
        std::uint32_t clusterSize = 1024;
        std::uint32_t recordSize = 1024;
        std::uint32_t clusters = 600;
        std::uint32_t records = 64;
        Runs mft = {}; ///< where the MFT lies; none: in one piece
        std::u16string label = u"Data";
    };

    struct Record {
        bool inUse = true;
        bool isDirectory = false;
        std::uint16_t sequence = 1;
        FileReference base = {};
        std::vector<Bytes> attributes = {};
        std::uint64_t logSequence = 0;
    };

    /// What the header of a $DATA attribute in clusters says.
    struct Data {
        Runs runs = {};
        std::uint64_t size = 0;
        std::optional<std::uint64_t> initSize = {}; ///< none: all of it
        std::uint64_t startVCN = 0;
        std::uint16_t flags = 0;
        std::uint8_t compressionUnit = 0;
        std::uint64_t allocated = 0; ///< in bytes
    };

    struct ListEntry {
        std::uint32_t type;
        FileReference record;
        std::uint64_t startVCN = 0;
    };

    static constexpr FileReference root { 5, 5 };
    static constexpr std::uint64_t creation = 133'000'000'000'000'000;     ///< 18 June 2022
    static constexpr std::uint64_t modification = 133'500'000'000'000'000; ///< 18 January 2024

    explicit NTFSImage(Options options);
    NTFSImage()
        : NTFSImage(Options {})
    {
    }

    // Attributes, as they are stored.
    static Bytes attribute(std::uint32_t type, const Bytes& value, std::uint16_t flags = 0);
    static Bytes standardInformation(std::uint64_t created = creation,
        std::uint64_t modified = modification, std::uint64_t changed = 0);
    static Bytes fileName(FileReference parent, std::u16string_view name,
        std::uint8_t nameSpace = 1, std::uint64_t realSize = 0);
    static Bytes data(const Bytes& resident) { return attribute(0x80, resident); }
    static Bytes data(const Data& data) { return nonResident(0x80, data); }
    static Bytes nonResident(std::uint32_t type, const Data& data);
    /// The same attribute with a name.
    static Bytes withName(Bytes attribute, std::u16string_view name);
    static Bytes listContent(const std::vector<ListEntry>& entries);
    static Bytes encode(const Runs& runs);
    /// An entry of the index of a folder.
    struct IndexEntry {
        FileReference file;
        FileReference folder;
        std::u16string name;
        std::uint8_t nameSpace = 1;
    };
    /// A block of the index of a folder. Of its entries the last `removed` are not in use any more.
    static Bytes indexBlock(const std::vector<IndexEntry>& entries, std::size_t removed = 0);
    /// The same with one file in it.
    static Bytes indexBlock(FileReference folder) { return indexBlock({ { {}, folder, u"fil" } }); }
    /// An entry of the change journal, of version 2 or 3.
    static Bytes journalEntry(
        std::uint16_t version, FileReference file, FileReference parent, std::u16string_view name);

    /// Writes a record, wherever the MFT has it.
    void put(std::uint64_t number, const Record& record);
    /// Writes an ordinary file or folder: dates, one name, and `content`.
    void putFile(std::uint64_t number, FileReference parent, std::u16string_view name,
        const Bytes& content, bool inUse = true, std::uint16_t sequence = 1);
    void putFolder(std::uint64_t number, FileReference parent, std::u16string_view name,
        bool inUse = true, std::uint16_t sequence = 1);

    /// Takes the next clusters that no file has, fills them with `content` and marks them as used,
    /// or leaves them free.
    Runs store(const Bytes& content, bool isUsed = true);
    void markUsed(std::uint64_t lcn, std::uint64_t count, bool isUsed = true);

    std::uint64_t offsetOf(std::uint64_t lcn) const { return lcn * options_.clusterSize; }
    std::uint64_t mftLCN() const { return options_.mft.front().lcn.value_or(0); }
    std::uint64_t mirrorLCN() const { return mirrorLCN_; }
    std::uint64_t bitmapLCN() const { return bitmapLCN_; }
    /// The place of byte `at` of a record.
    std::uint64_t recordOffset(std::uint64_t number, std::uint64_t at = 0) const;
    /// The places of the records from `from` on that were written.
    std::vector<std::uint64_t> recordOffsets(std::uint64_t from = 0) const;

private:
    Bytes encodeRecord(std::uint64_t number, const Record& record) const;

    Options options_;
    std::uint64_t mirrorLCN_ = 0;
    std::uint64_t bitmapLCN_ = 0;
    std::uint64_t nextCluster_ = 0;
};
