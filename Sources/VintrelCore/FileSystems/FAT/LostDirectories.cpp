// Directories of a FAT volume that no other one leads to, or what is left of them.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Walker.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

namespace FATParser {

using namespace FATEntries;

namespace {

constexpr std::int64_t sectorSize = 512;

/// A cluster with candidate sectors that nobody has claimed.
struct Fragment {
    std::uint32_t cluster = 0;
    bool begins = false;    ///< it has "." and "..", which call it by its number
    bool leads = false;     ///< it begins nothing, but names a folder that is where it says
    bool isForeign = false; ///< a directory of another volume: its "." has another number
};

class LostDirectories {
public:
    LostDirectories(FATDeepInfo& info, WorkProgress* progress)
        : info_(info)
        , heap_(info.context->geometry().heap)
        , source_(info.context->source())
        , progress_(progress)
        , walker_(*info.context, progress)
    {
    }

    std::unique_ptr<FileNode> find(std::vector<std::uint64_t> sectors, LostRoot* root)
    {
        std::ranges::sort(sectors);
        for (const auto offset : sectors)
            if (!isCancelled(progress_))
                survey(offset);
        std::erase_if(fragments_, [](const Fragment& fragment) { return fragment.isForeign; });
        if (fragments_.empty() && root == nullptr)
            return nullptr;

        auto folder = FileNode::makeFolder("$Tabte mappefragmenter", EntryStatus::orphaned);
        walker_.skip(info_.claimed); // folders that the volume lists already are not listed again
        walker_.claimed = std::move(info_.claimed);
        walker_.liveClusters = std::move(info_.liveClusters);
        if (root != nullptr)
            walkRoot(*root);
        // Folders that others name get their place and name from these. What nobody has reached
        // then goes in circles, or goes on somewhere unknown.
        for (const bool isLast : { false, true })
            for (std::size_t i = 0; i < fragments_.size() && !isCancelled(progress_); ++i)
                if ((isLast || isTop(i)) && !walker_.claimed.contains(fragments_[i].cluster))
                    walker_.walkFragment(fragments_[i].cluster, *folder);
        info_.claimed = std::move(walker_.claimed);
        info_.liveClusters = std::move(walker_.liveClusters);
        if (folder->children().empty())
            return nullptr;
        folder->sortChildren();
        return folder;
    }

private:
    void walkRoot(LostRoot& root)
    {
        if (root.offset < heap_.offset)
            walker_.walkLostRoot(root.offset, heap_.offset - root.offset, root.folder);
        else
            walker_.walkFragment(heap_.clusterAt(root.offset), root.folder, true);
        root.label = walker_.label().value_or("");
    }

    void survey(std::uint64_t offset)
    {
        if (offset < heap_.offset || (offset - heap_.offset) / heap_.clusterSize >= heap_.count)
            return;
        const auto cluster = heap_.clusterAt(offset);
        if (info_.claimed.contains(cluster) || info_.liveClusters.contains(cluster))
            return;
        if (fragments_.empty() || fragments_.back().cluster != cluster)
            fragments_.push_back({ .cluster = cluster });
        auto& fragment = fragments_.back();
        const auto bytes = source_.read(offset, sectorSize, ReadMode::thorough);
        const ByteView sector(bytes);
        const bool isFirst = offset == heap_.offsetOf(cluster);
        if (const auto own = ownCluster(sector)) {
            fragment.begins = isFirst && numberOf(*own) == cluster;
            fragment.isForeign = fragment.isForeign || !fragment.begins;
        } else if (isFirst) {
            noteHead(sector, cluster);
        }
        for (std::int64_t at = 0; const auto entry = sector.load<ShortEntry>(at); at += entrySize) {
            if (entry->name[0] == endOfDirectory)
                break;
            const auto number = numberOf(firstCluster(*entry));
            if (!isSubfolder(*entry) || !heap_.contains(number))
                continue;
            named_.insert(number);
            if (!fragment.begins && !fragment.leads) {
                const auto start
                    = source_.read(heap_.offsetOf(number), 2 * entrySize, ReadMode::thorough);
                const auto own = ownCluster(start);
                fragment.leads = own && numberOf(*own) == number;
            }
        }
    }

    /// Keeps by what the directory is known to which a cluster's first entries belong.
    void noteHead(ByteView sector, std::uint32_t cluster)
    {
        const auto entry = *sector.load<ShortEntry>(0);
        const auto piece = *sector.load<LongNamePiece>(0);
        if (entry.attributes != longNameAttributes)
            walker_.heads.insert({ 0, checksum(entry.name), cluster });
        else if (!piece.isLast() && !piece.isDeleted())
            walker_.heads.insert({ piece.sequence(), piece.checksum, cluster });
        for (std::int64_t at = 0; const auto next = sector.load<ShortEntry>(at); at += entrySize)
            if (next->attributes != longNameAttributes && next->name[0] != deletedMark
                && numberOf(firstCluster(*next)) != 0) {
                walker_.looseEnds.byFirstContent.emplace(numberOf(firstCluster(*next)), cluster);
                return;
            }
    }

    /// Whether a fragment has no other one above it. What follows a fragment directly may be more
    /// of it.
    bool isTop(std::size_t index) const
    {
        const auto& fragment = fragments_[index];
        const bool follows = index > 0 && fragments_[index - 1].cluster + 1 == fragment.cluster;
        return !named_.contains(fragment.cluster)
            && (fragment.begins || (fragment.leads && !follows));
    }

    std::uint32_t numberOf(std::uint32_t stored) const
    {
        return info_.context->geometry().type == FileSystemType::fat32 ? stored : stored & 0xFFFF;
    }

    FATDeepInfo& info_;
    const ClusterHeap& heap_;
    DiskSource& source_;
    WorkProgress* progress_;
    FATWalker walker_;
    std::vector<Fragment> fragments_;         // ascending
    std::unordered_set<std::uint32_t> named_; // where the fragments' entries have folders
};

} // namespace

std::unique_ptr<FileNode> lostEntries(
    Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress)
{
    auto* info = dynamic_cast<FATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->isRebuilt)
        return nullptr;
    return lostEntries(*info, sectors, progress, nullptr);
}

std::unique_ptr<FileNode> lostEntries(FATDeepInfo& info, std::span<const std::uint64_t> sectors,
    WorkProgress* progress, LostRoot* root)
{
    return LostDirectories(info, progress).find({ sectors.begin(), sectors.end() }, root);
}

} // namespace FATParser
