#include "VintrelCore/FileSystems/NTFS/Shadow/Snapshots.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Catalog.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Mapping.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Relocation.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/SameFiles.h"
#include "VintrelCore/Model/Chance.h"

#include <algorithm>

namespace NTFSShadow {

namespace {

/// The lists of all copies together name each block of the volume once, but for sectors that were
/// kept by themselves.
constexpr std::uint64_t blocksPerList = blockSize / sizeof(StoredBlock) - 4;
constexpr std::uint64_t listsPerVolume = 4; ///< times as many as its blocks would fill
constexpr std::uint64_t spareLists = 1'024; ///< the last list of each copy is not full
constexpr std::uint64_t maxLists = 16'384;  ///< which name 128 GiB; beyond it is a matter of memory

/// One shadow copy of a volume on its source, and what is needed to tell of its files.
class SnapshotReader {
public:
    SnapshotReader(
        DiskSource& source, Volume& volume, const NTFSDeepInfo& info, std::vector<BlockList> lists)
        : source_(source)
        , volume_(volume)
        , info_(info)
        , lists_(std::move(lists))
        , map_(AllocationMap::load({ source, info.geometry }, info.bitmap))
        , living_(source, volume)
    {
    }

    /// The copy with the list `index`; none when it is no volume any more.
    std::unique_ptr<Volume> read(const Store& store, std::size_t index, WorkProgress* progress)
    {
        const Mapping mapping(info_.geometry.base, volume_.size, std::span(lists_).subspan(index));
        const auto copy = mapping.open(source_);
        auto snapshot = NTFSParser::parse(*copy, info_.geometry.base, "Skyggekopi", progress);
        if (!snapshot)
            return nullptr;
        const bool isDamaged
            = std::ranges::any_of(std::span(lists_).subspan(index), &BlockList::isDamaged);
        snapshot->label = volume_.label.empty() ? "Uden navn" : volume_.label;
        if (store.created)
            snapshot->label += ", " + TimeConversion::localText(*store.created, dateFormat);
        snapshot->root->forEachDescendant(
            [&](FileNode& node, std::size_t) { place(node, mapping, isDamaged); });
        if (isDamaged)
            snapshot->notes.emplace_back("Dele af skyggekopiens blokliste er beskadiget. Filer kan "
                                         "mangle eller have nyere indhold.");
        living_.removeFrom(*snapshot, *copy);
        snapshot->deepContext = nullptr; // it speaks of places on the copy
        return snapshot;
    }

private:
    static constexpr const char* dateFormat = "%Y-%m-%d %H:%M:%S";

    /// What speaks against a content: of deleted files that their place was not kept for them.
    Doubts doubtsOf(
        const FileNode& node, const FileData& data, const Mapping& mapping, bool isDamaged) const
    {
        const auto pieces = locate(mapping, data);
        Doubts doubts;
        if (isDamaged && !pieces.empty())
            doubts.add(Doubt::partlyReused);
        if (node.status == EntryStatus::deleted)
            doubts.add(::doubtsOf(useOf(pieces, map_, info_.geometry), ntfsReuse));
        return doubts;
    }

    /// From places on the copy to places on the source.
    void place(FileNode& node, const Mapping& mapping, bool isDamaged) const
    {
        if (node.isDirectory())
            return;
        judgeFurther(node, doubtsOf(node, node.data, mapping, isDamaged));
        node.data = relocated(mapping, std::move(node.data));
        if (!node.attachments)
            return;
        for (auto& attachment : *node.attachments) {
            judgeFurther(attachment, doubtsOf(node, attachment.data, mapping, isDamaged));
            attachment.data = relocated(mapping, std::move(attachment.data));
        }
    }

    DiskSource& source_;
    Volume& volume_;
    const NTFSDeepInfo& info_;
    const std::vector<BlockList> lists_;
    const AllocationMap map_;
    const SameFiles living_;
};

/// The lists of the copies, in their order.
std::vector<BlockList> readLists(
    DiskSource& source, const Volume& volume, std::span<const Store> stores)
{
    const std::uint64_t blocks = std::min(volume.size, source.size()) / blockSize;
    ChainBudget budget { std::min(blocks / blocksPerList * listsPerVolume + spareLists, maxLists) };
    std::vector<BlockList> lists;
    lists.reserve(stores.size());
    for (const auto& store : stores)
        lists.push_back(BlockList::read(source, volume.offset, store.blockList, budget));
    return lists;
}

} // namespace

VolumeList snapshots(DiskSource& source, Volume& volume, WorkProgress* progress)
{
    VolumeList found;
    const auto* const info = dynamic_cast<const NTFSDeepInfo*>(volume.deepContext.get());
    // What was put together from loose records lies where another volume keeps its copies.
    if (info == nullptr || !info->geometry.hasPlace || info->mft.extents().empty())
        return found;
    const auto stores = readCatalog(source, volume.offset);
    if (stores.empty())
        return found;
    report(progress, 0, "Læser skyggekopier …");
    SnapshotReader reader(source, volume, *info, readLists(source, volume, stores));
    std::size_t lost = 0;
    for (std::size_t index = 0; index < stores.size() && !isCancelled(progress); ++index) {
        auto snapshot = reader.read(stores[index], index, progress);
        if (snapshot)
            found.push_back(std::move(snapshot));
        else
            ++lost;
    }
    if (lost > 0)
        volume.notes.push_back((lost == 1 ? "1 skyggekopi" : std::to_string(lost) + " skyggekopier")
            + std::string(" kunne ikke læses."));
    return found;
}

} // namespace NTFSShadow
