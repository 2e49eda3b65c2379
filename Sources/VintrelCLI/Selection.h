#pragma once

#include "VintrelCore/Foundation/Wildcard.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

class Volume;

/// Which of the files that were found `recover` is to copy, by the options --only, --type,
/// --chance,
/// --volume and --deleted. Used by one thread.
class Selection {
public:
    /// Reads the options. `problem` becomes a Danish sentence when one of them cannot be
    /// understood.
    Selection(std::span<const std::string> arguments, std::optional<std::string>& problem);

    /// Whether anything but --deleted narrows it.
    bool isNarrowed() const;
    /// Whether files of the volume that is listed as the `number`th, counted from 1, are wanted.
    bool takesVolume(std::uint64_t number) const;
    /// What of a volume is wanted: its topmost nodes with all below them, or single files.
    std::vector<FileNode*> nodes(const Volume& volume) const;

private:
    bool takes(const FileNode& node) const;

    bool onlyDeleted_ = false;
    std::vector<Wildcard> patterns_;
    std::set<std::string, std::less<>> extensions_; ///< in lower case
    std::set<FileCategory> categories_;
    std::set<Recoverability> chances_;
    std::set<std::uint64_t> volumes_;
};
