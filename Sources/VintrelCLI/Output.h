#pragma once

#include "VintrelCLI/TreeListing.h"
#include "VintrelCore/Devices/DiskList.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Recovery/Recovery.h"
#include "VintrelCore/Scanning/Partitions.h"

#include <memory>
#include <string>
#include <vector>

class Console;
class DiskSource;

/// What the commands have to say, in one of the forms that a user can ask for. Text from disks is
/// made harmless here. Used by one thread.
class Output {
public:
    Output() = default;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    virtual ~Output() = default;

    virtual void disks(const std::vector<DiskRecord>& disks) = 0;
    virtual void source(const DiskSource& source) = 0;
    virtual void layout(const PartitionLayout& layout) = 0;
    /// The source and its partitions, for forms that want them with every listing.
    virtual void context(const DiskSource& source, const PartitionLayout& layout) = 0;
    /// A remark about the source as a whole.
    virtual void note(const std::string& text) = 0;
    virtual void sweep(const DeepScanResult& finds) = 0;
    /// A volume with its figures and notes, as `scan` shows it.
    virtual void volume(const Volume& volume) = 0;
    /// A volume with all of its files.
    virtual void tree(const Volume& volume, ListedStreams streams) = 0;
    /// A volume in one line, as `deep` shows it.
    virtual void summary(const Volume& volume) = 0;
    /// Told before a volume's files are copied. Returns what is to hear of each of them; empty
    /// where the form has nothing for it.
    virtual RecoveryEngine::FileListener recovering(const Volume& volume) = 0;
    virtual void recovered(const Volume& volume, const RecoveryResult& result) = 0;
    /// The last words. `isComplete`: whether nothing stopped the command before its end.
    virtual void end(bool isComplete) = 0;
};

/// The lines that a person reads.
std::unique_ptr<Output> makeTextOutput(Console& console);

/// One JSON object a line, see docs/json.md. None when the program was built without a library that
/// writes JSON.
std::unique_ptr<Output> makeJSONOutput(Console& console);
