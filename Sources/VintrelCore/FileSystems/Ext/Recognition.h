#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Files.h"

#include <cstdint>
#include <string>

/// Deleted files of which blocks are known, and of their size only that it ends in the last one:
/// formats tell theirs. What all files of a volume together may be read for that is bounded. Used
/// by one thread at a time.
class ExtRecognition {
public:
    /// The context must outlive it.
    explicit ExtRecognition(const ExtContext& context);

    /// Gives a file the size that its content has, and its date where it has none, where the
    /// content is of a known kind and ends in the last block. Returns its extension; empty, and
    /// nothing changed, where it does not.
    std::string recognise(FileNode& node);

    /// Does so for all that have ended and whose size is not known; nothing else is doubtful about
    /// the blocks of those either.
    void recogniseAll(ExtFiles& files);

private:
    const ExtContext& context_;
    std::uint64_t bytesLeft_;
};
