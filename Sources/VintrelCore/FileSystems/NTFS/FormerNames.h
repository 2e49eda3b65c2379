#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>

/// Names and folders of files and folders whose records do not tell them any more, as the change
/// journal and the indices of folders still know them. Only what is wanted is kept, and nothing is
/// read as long as nothing is wanted. Used by one thread at a time.
class NTFSFormerNames {
public:
    struct Name {
        std::string name;
        FileReference parent;
    };

    /// Asks for a file by number and sequence number, which must both be known.
    void want(FileReference file);
    /// Whether something was asked for that is not known yet.
    bool isWanting() const { return missing_ > 0; }

    /// Learns from the change journal, by the newest of its entries for each file. `journal`: the
    /// stream $J.
    void readJournal(DiskSource& source, const ExtentList& journal);
    /// Learns what is still missing from the indices of folders, also from entries that were
    /// removed there. `indices`: where the index of each folder lies.
    void readIndices(const NTFSContext& context, std::span<const RunList> indices);

    /// The same of single blocks of indices, in bytes on the source.
    void readLooseIndices(DiskSource& source, std::span<const std::uint64_t> offsets);

    /// None for what was not asked for or was not found.
    const Name* find(FileReference file) const;

private:
    struct Answer {
        Name name; ///< empty: not known yet
        bool isDOS = false;
    };

    void readIndex(const NTFSContext& context, const RunList& index, std::uint64_t& budget);
    void readBlock(std::span<std::uint8_t> block);
    /// The answer that a file is wanted for; none when it is not wanted.
    Answer* answerFor(FileReference file);
    void set(Answer& answer, Name name, bool isDOS);

    std::unordered_map<std::uint64_t, Answer> answers_;
    std::size_t missing_ = 0;
};
