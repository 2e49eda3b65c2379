#pragma once

#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/// The clusters that deleted files lay in. Unlike `DeletedClaims` it has two orders to go by, that
/// of the log and that of the dates, and believes neither against the other. Where two files name
/// the same cluster, the space of one was given to the other before that one was deleted too: the
/// content is that of the later one.
class NTFSDeletedClaims {
public:
    using File = std::size_t;

    /// `lastWrite`: of the file's record.
    void add(File file, const FileData& data, const NTFSGeometry& geometry, LastWrite lastWrite);

    /// What gives reason to doubt the files that share clusters with others, by file; files behind
    /// the end share none. To be called once, when all are in: uses up the claims.
    std::vector<Doubts> judge();

private:
    /// A run of clusters that a file names.
    struct Claim {
        std::uint64_t first, end; ///< clusters
        File file;
        LastWrite lastWrite;
        bool isBeginning; ///< of the file
    };

    void add(File file, LastWrite lastWrite, std::uint64_t first, std::uint64_t count);
    void compare(const Claim& earlier, const Claim& later);
    void lose(const Claim& loser, const Claim& winner);

    std::vector<Claim> claims_;
    std::vector<Doubts> doubts_; ///< by file
};
