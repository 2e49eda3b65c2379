// From the records of an MFT to the tree of files.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::uint64_t volumeRecord = 3;
constexpr std::uint64_t rootRecord = 5;
constexpr std::uint64_t bitmapRecord = 6;
constexpr std::uint64_t extendRecord = 11;    // $Extend, the folder of younger system files
constexpr std::uint64_t firstUserRecord = 16; // those before it are the system's

} // namespace

void MFTRecords::add(MFTRecord& record)
{
    if (!record.number)
        return;
    ++count_;
    const std::uint64_t number = *record.number;
    const bool isFile = number >= firstUserRecord && !record.isExtension();
    const bool isPending = isFile && record.hasAttributeList();
    if (isFile) {
        Entry entry;
        entry.number = number;
        entry.sequence = record.sequence;
        entry.inUse = record.inUse;
        entry.isPending = isPending;
        if (!isPending)
            describe(entry, record);
        if (isPending || entry.node)
            entries_.push_back(std::move(entry));
    }
    if (!isFile || isPending)
        whole_.try_emplace(number, std::move(record));
}

void MFTRecords::describe(Entry& entry, MFTRecord& record)
{
    auto* const best = record.bestName();
    auto content
        = record.isDirectory ? NTFSContent::Content {} : NTFSContent::of(context_, record.data);
    const bool isWorthAName = !record.inUse && content.size > 0;
    if (best == nullptr && !isWorthAName)
        return;

    entry.doubts = static_cast<std::uint8_t>(
        content.doubts | (record.fixupOK ? 0 : NTFSContent::Doubt::isDamagedRecord));
    if ((content.doubts & NTFSContent::Doubt::lacksAttribute) != 0 && best != nullptr)
        content.size = std::min(best->realSize, context_.capacity());
    auto created = record.created;
    auto modified = record.modified;
    std::string name;
    if (best == nullptr) {
        name = "unavngivet-" + std::to_string(entry.number);
    } else {
        entry.parent = best->parent;
        created = created ? created : best->created;
        modified = modified ? modified : best->modified;
        // Names that belong to the same folder, as the short name beside the long one does, give no
        // second chance.
        if (std::ranges::any_of(
                record.names, [&](const FNInfo& other) { return other.parent != best->parent; }))
            otherNames_.try_emplace(entry.number, record.names);
        name = std::move(best->name);
    }
    const auto status = record.inUse ? EntryStatus::existing : EntryStatus::deleted;
    entry.node = record.isDirectory ? FileNode::makeFolder(std::move(name), status)
                                    : FileNode::makeFile(std::move(name), content.size, status,
                                        Recoverability::unknown, std::move(content.data));
    entry.node->created = created;
    entry.node->modified = modified;
    entry.node->fsID = entry.number;
}

/// Links what was read of an MFT.
class NTFSTree {
public:
    NTFSTree(const NTFSContext& context, MFTRecords& records)
        : context_(context)
        , records_(records)
        , entries_(records.entries_)
        , listBudget_(context.source().size())
    {
    }

    std::unique_ptr<Volume> build(const std::string& origin);

private:
    using Entry = MFTRecords::Entry;

    /// Where the way up from a record ends.
    enum class Place : std::uint8_t { unknown, onPath, inTree, system, orphaned };

    /// How an entry hangs in the tree.
    struct Link {
        std::size_t parent = none; ///< the index of an entry, or one of the three below
        Place place = Place::unknown;
        FileNode* node = nullptr; ///< the entry's, wherever it is by now
    };
    static constexpr std::size_t none = std::numeric_limits<std::size_t>::max();
    static constexpr std::size_t root = none - 1;
    static constexpr std::size_t extend = none - 2;

    void mergeExtensions(MFTRecord& record);
    void sortEntries();
    void judge();
    std::size_t find(std::uint64_t number) const;
    std::size_t validParent(std::uint64_t number, FileReference parent) const;
    std::size_t chooseParent(Entry& entry) const;
    void place(std::size_t index);
    void hang(FileNode& rootFolder);

    const NTFSContext& context_;
    MFTRecords& records_;
    std::vector<Entry>& entries_;
    std::uint64_t listBudget_; // bytes of attribute lists that may still be read
    std::vector<Link> links_;  // as many as entries
    std::vector<std::size_t> path_;
};

std::unique_ptr<Volume> NTFSContext::buildVolume(
    MFTRecords records, const std::string& origin) const
{
    return NTFSTree(*this, records).build(origin);
}

std::unique_ptr<Volume> NTFSTree::build(const std::string& origin)
{
    const auto volumeInformation = records_.whole_.find(volumeRecord);
    auto volume = std::make_unique<Volume>(FileSystemType::ntfs,
        volumeInformation != records_.whole_.end() ? volumeInformation->second.volumeName
                                                   : std::string(),
        context_.geometry().base, context_.geometry().volumeSize,
        FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize = context_.geometry().clusterSize;

    for (auto& entry : entries_) {
        if (!entry.isPending)
            continue;
        const auto record = records_.whole_.find(entry.number);
        mergeExtensions(record->second);
        records_.describe(entry, record->second);
    }
    sortEntries();
    judge();
    hang(*volume->root);
    volume->root->sortChildren();
    return volume;
}

/// Adds what the extension records hold that the record's attribute list names.
void NTFSTree::mergeExtensions(MFTRecord& record)
{
    // Lists lie in clusters of their own: all of them together are smaller than the source, or made
    // up.
    if (!record.attributeListRuns.empty()) {
        const std::uint64_t size
            = std::min(record.attributeListSize, NTFSContext::maxAttributeList);
        if (size > listBudget_)
            return;
        listBudget_ -= size;
    }
    for (const auto reference :
        NTFSParser::extensionsIn(context_.attributeListOf(record), *record.number)) {
        const auto extension = records_.whole_.find(reference.number);
        if (extension != records_.whole_.end()
            && NTFSParser::isExtensionOf(extension->second, reference, record))
            NTFSParser::mergeExtension(record, extension->second);
    }
}

/// By their numbers, each number once. Records of an MFT come in that order.
void NTFSTree::sortEntries()
{
    if (!std::ranges::is_sorted(entries_, std::ranges::less_equal {}, &Entry::number)) {
        std::ranges::stable_sort(entries_, {}, &Entry::number);
        const auto end = std::unique(entries_.begin(), entries_.end(),
            [](const Entry& left, const Entry& right) { return left.number == right.number; });
        entries_.erase(end, entries_.end());
    }
}

/// Gives every node its chance and note.
void NTFSTree::judge()
{
    NTFSContent::AllocationMap map;
    if (const auto found = records_.whole_.find(bitmapRecord);
        found != records_.whole_.end() && found->second.inUse) {
        mergeExtensions(found->second);
        map = NTFSContent::AllocationMap::load(
            context_, NTFSContent::of(context_, found->second.data).data);
    }
    for (auto& entry : entries_) {
        if (!entry.node)
            continue;
        auto& node = *entry.node;
        if (node.isDirectory()) {
            node.note = NTFSContent::noteOf(entry.doubts);
            continue;
        }
        std::optional<NTFSContent::AllocationMap::Use> use;
        if (!entry.inUse)
            use = map.useOf(node.data, context_.geometry());
        auto chance = NTFSContent::chanceOf(entry.doubts, use);
        node.recoverability = chance.recoverability;
        node.note = std::move(chance.note);
    }
}

/// The index of the entry with this record number, or `none`.
std::size_t NTFSTree::find(std::uint64_t number) const
{
    const auto entry = std::ranges::lower_bound(entries_, number, {}, &Entry::number);
    return entry != entries_.end() && entry->number == number
        ? static_cast<std::size_t>(entry - entries_.begin())
        : none;
}

/// What the record `number` hangs under when this is its parent; `none` when that folder is not its
/// folder any more.
std::size_t NTFSTree::validParent(std::uint64_t number, FileReference parent) const
{
    if (parent.number == number)
        return none;
    if (parent.number == rootRecord)
        return root;
    if (parent.number == extendRecord)
        return extend;
    const std::size_t index = parent.number < firstUserRecord ? none : find(parent.number);
    if (index == none)
        return none;
    const auto& folder = entries_[index];
    // A slot that was used again belongs to another folder.
    const bool isSame = folder.node && folder.node->isDirectory()
        && sequenceMatches(parent.sequence, folder.sequence, folder.inUse);
    return isSame ? index : none;
}

/// The folder of the name that the entry is shown under; when that one is lost, of another of its
/// names, which it then gets.
std::size_t NTFSTree::chooseParent(Entry& entry) const
{
    const auto parent = validParent(entry.number, entry.parent);
    const auto others = records_.otherNames_.find(entry.number);
    if (parent != none || others == records_.otherNames_.end())
        return parent;
    for (const bool isDOS : { false, true }) {
        for (auto& name : others->second) {
            if (name.isDOS() != isDOS || name.parent == entry.parent)
                continue;
            const auto other = validParent(entry.number, name.parent);
            if (other == none)
                continue;
            entry.node->name = std::move(name.name);
            return other;
        }
    }
    return none;
}

/// Finds out where the way up from an entry ends, and remembers it for every entry on the way.
void NTFSTree::place(std::size_t index)
{
    path_.clear();
    Place end = Place::unknown;
    for (std::size_t at = index; end == Place::unknown;) {
        auto& link = links_[at];
        if (link.place == Place::onPath) { // a loop: it is cut here, and this is its top
            link.parent = none;
            end = Place::orphaned;
        } else if (link.place != Place::unknown) {
            end = link.place;
        } else {
            link.place = Place::onPath;
            path_.push_back(at);
            if (link.parent == root)
                end = Place::inTree;
            else if (link.parent == extend)
                end = Place::system;
            else if (link.parent == none)
                end = Place::orphaned;
            else
                at = link.parent;
        }
    }
    for (const auto at : path_)
        links_[at].place = end;
}

/// Hangs every node under its folder, and those whose folder is lost under a folder of their own.
void NTFSTree::hang(FileNode& rootFolder)
{
    links_.resize(entries_.size());
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        auto& entry = entries_[index];
        if (!entry.node)
            continue;
        links_[index].node = entry.node.get();
        links_[index].parent = chooseParent(entry);
    }
    auto orphans = FileNode::makeFolder("$Forældreløse filer", EntryStatus::orphaned);
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        auto& node = entries_[index].node;
        if (!node)
            continue;
        place(index);
        const auto& link = links_[index];
        if (link.place == Place::system)
            continue;
        auto& folder = link.parent == root ? rootFolder
            : link.parent == none          ? *orphans
                                           : *links_[link.parent].node;
        folder.add(std::move(node));
    }
    if (!orphans->children().empty())
        rootFolder.add(std::move(orphans));
}
