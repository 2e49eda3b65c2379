#include "VintrelCore/FileSystems/NTFS/Rebuild/JoinVolume.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"
#include "VintrelCore/FileSystems/NTFS/AttributeList.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <unordered_map>

namespace NTFSRebuild {

namespace {

using Index = ParentLinks::Index;

/// Extension records that are fetched from the MFT for records that join it. More are made up.
constexpr std::size_t maxFetchedExtensions = 65'536;

/// Systems that make a volume may round the time to seconds.
constexpr auto roundingOfTimes = std::chrono::seconds(1);

/// Whether a file's record lies on the volume, where clusters and records begin.
bool isOnVolume(const LooseRecord& loose, const NTFSGeometry& geometry)
{
    const std::uint64_t unit = std::min<std::uint64_t>(geometry.clusterSize, loose.size);
    return loose.number >= NTFSParser::firstUserRecord && loose.size == geometry.recordSize
        && loose.offset >= geometry.base && loose.offset - geometry.base < geometry.volumeSize
        && (loose.offset - geometry.base) % unit == 0;
}

/// A record that may be the volume's own.
struct Candidate {
    LooseRecord loose;
    FileReference parent;
    std::uint64_t changed = 0; ///< as a FILETIME
    std::uint16_t sequence = 0;
    bool inUse = false;
    bool isDirectory = false;
    bool hasUsedCluster = false; ///< it lies in a cluster that is in use, or may be
    FileNode* folder = nullptr;  ///< of the volume's tree; none for one that is a candidate too
    bool isOnlyRecord = false;   ///< the MFT has no record of this number
};

/// A folder of the volume's tree that a candidate may hang under.
struct KnownFolder {
    FileNode* node = nullptr;
    std::uint16_t sequence = 0;
    bool inUse = false;
};

class JoiningRecords {
public:
    JoiningRecords(RecordReader& reader, const NTFSParser::ListedVolume& listed)
        : reader_(reader)
        , listed_(listed)
        , context_(reader.source(), listed.info->geometry)
        , map_(AllocationMap::load(context_, listed.info->bitmap))
    {
    }

    /// When the volume was made, as its root says; none when that cannot be read.
    std::optional<Date> dateOfMaking()
    {
        MFTRecord root;
        return hasOwn(NTFSParser::rootRecord, root) ? root.created : std::nullopt;
    }

    void gather(const std::vector<LooseRecord>& loose, Date made, const WorkProgress* progress)
    {
        const auto possible = withoutContent(loose);
        MFTRecord record;
        for (const auto& one : possible)
            if (!isCancelled(progress) && reader_.read(one, record) && !record.isExtension())
                addCandidate(one, record, made);
        // Of several states of a file the last one is its own.
        std::ranges::sort(candidates_, [](const Candidate& one, const Candidate& other) {
            return one.loose.number != other.loose.number ? one.loose.number < other.loose.number
                                                          : one.changed > other.changed;
        });
        const auto repeated = std::unique(candidates_.begin(), candidates_.end(),
            [](const Candidate& one, const Candidate& other) {
                return one.loose.number == other.loose.number;
            });
        candidates_.erase(repeated, candidates_.end());
    }

    /// Keeps the candidates whose folder is known, or that hang below one whose folder is.
    void link()
    {
        findFolders();
        std::vector<Index> parents;
        parents.reserve(candidates_.size());
        for (auto& candidate : candidates_)
            parents.push_back(parentOf(candidate));
        const ParentLinks links(std::move(parents));
        std::vector<Candidate> linked;
        for (Index index = 0; index < candidates_.size(); ++index)
            if (links.placeOf(index) == ParentLinks::Place::inTree)
                linked.push_back(candidates_[index]);
        candidates_ = std::move(linked);
    }

    std::size_t count() const { return candidates_.size(); }

    /// Makes nodes of the candidates and hangs them into the tree. `loose` has their extension
    /// records.
    void hang(const std::vector<LooseRecord>& loose)
    {
        MFTRecords records(context_);
        MFTRecord record;
        for (const auto& candidate : candidates_)
            if (reader_.read(candidate.loose, record)) {
                fetchExtensions(record, records);
                records.add(record);
            }
        for (const auto& one : loose)
            if (reader_.read(one, record) && record.isExtension()
                && find(record.base.number) != nullptr)
                records.add(record);
        records.finish();
        std::unordered_map<std::uint64_t, FileNode*> folders;
        for (const auto& entry : records.entries())
            if (entry.node && entry.node->isDirectory())
                folders.emplace(entry.number, entry.node.get());
        for (auto& entry : records.entries()) {
            const auto* const candidate = find(entry.number);
            if (!entry.node || candidate == nullptr)
                continue;
            judgeEntry(entry, *candidate);
            const auto own = folders.find(candidate->parent.number);
            auto* const folder = candidate->folder != nullptr || own == folders.end()
                ? candidate->folder
                : own->second;
            if (folder != nullptr)
                folder->add(std::move(entry.node));
        }
    }

    /// Takes the candidates out of these records, and further copies of them.
    void removeFrom(std::vector<LooseRecord>& loose)
    {
        MFTRecord record, copy;
        std::erase_if(loose, [&](const LooseRecord& one) {
            const auto* const candidate = find(one.number);
            return candidate != nullptr
                && (candidate->loose.offset == one.offset
                    || (reader_.read(candidate->loose, record) && reader_.read(one, copy)
                        && describeSameState(record, copy) && firstLCN(record) == firstLCN(copy)));
        });
    }

private:
    /// Reads the MFT's own record of this number.
    bool hasOwn(std::uint64_t number, MFTRecord& record)
    {
        return reader_.readFrom(
            listed_.info->mft, { 0, number, context_.geometry().recordSize }, record);
    }

    /// Those on the volume that are not the content of a file: a disk image has records of its own.
    std::vector<LooseRecord> withoutContent(const std::vector<LooseRecord>& loose) const
    {
        std::vector<LooseRecord> left;
        std::ranges::copy_if(loose, std::back_inserter(left),
            [this](const LooseRecord& one) { return isOnVolume(one, context_.geometry()); });
        std::ranges::sort(left, {}, &LooseRecord::offset);
        const auto drop = [&](std::uint64_t start, std::uint64_t length) {
            auto one = std::ranges::lower_bound(left, start, {}, &LooseRecord::offset);
            for (; one != left.end() && one->offset - start < length; ++one)
                one->size = 0;
        };
        if (!left.empty())
            listed_.volume->root->forEachDescendant([&](const FileNode& node, std::size_t) {
                if (node.status == EntryStatus::existing)
                    forEachPiece(node.data, drop);
            });
        std::erase_if(left, [](const LooseRecord& one) { return one.size == 0; });
        return left;
    }

    template <class Visit> void forEachPiece(const FileData& data, Visit visit) const
    {
        if (const auto* extents = std::get_if<ExtentList>(&data)) {
            for (const auto& extent : *extents)
                if (extent.offset)
                    visit(*extent.offset, extent.length);
        } else if (const auto* compressed = contentAs<CompressedRuns>(data)) {
            for (const auto& run : compressed->runs)
                if (const auto offset
                    = run.lcn ? context_.geometry().offsetOf(*run.lcn) : std::nullopt)
                    visit(*offset, run.clusters * compressed->clusterSize);
        }
    }

    void addCandidate(const LooseRecord& loose, MFTRecord& record, Date made)
    {
        const auto* const name = record.bestName();
        const auto changed = TimeConversion::fromFiletime(record.lastWrite.changed);
        const auto use
            = map_.useOf(ExtentList { { loose.offset, loose.size } }, context_.geometry());
        const bool hasUsedCluster = use.foreign > 0 || use.isUnknown;
        // What is damaged in space that anything may have had can be of two records.
        if (name == nullptr || !changed || *changed < made + roundingOfTimes
            || !(record.fixupOK || hasUsedCluster))
            return;
        candidates_.push_back({ .loose = loose,
            .parent = name->parent,
            .changed = record.lastWrite.changed,
            .sequence = record.sequence,
            .inUse = record.inUse,
            .isDirectory = record.isDirectory,
            .hasUsedCluster = hasUsedCluster });
    }

    const Candidate* find(std::uint64_t number) const
    {
        const auto found = std::ranges::lower_bound(candidates_, number, {},
            [](const Candidate& candidate) { return candidate.loose.number; });
        return found != candidates_.end() && found->loose.number == number ? &*found : nullptr;
    }

    /// The folders of the tree that candidates name, and which record each one has by now.
    void findFolders()
    {
        for (const auto& candidate : candidates_)
            folders_.try_emplace(candidate.parent.number);
        listed_.volume->root->forEachDescendant([&](FileNode& node, std::size_t) {
            const auto folder = node.isDirectory() && node.fsID >= NTFSParser::firstUserRecord
                ? folders_.find(node.fsID)
                : folders_.end();
            if (folder != folders_.end())
                folder->second.node = &node;
        });
        MFTRecord record;
        for (auto& [number, folder] : folders_) {
            if (folder.node == nullptr)
                continue;
            if (!hasOwn(number, record))
                folder.node = nullptr;
            folder.sequence = record.sequence;
            folder.inUse = record.inUse;
        }
    }

    /// `root` for one that hangs under a folder of the tree.
    Index parentOf(Candidate& candidate)
    {
        MFTRecord record;
        candidate.isOnlyRecord = !hasOwn(candidate.loose.number, record);
        const auto parent = candidate.parent;
        if (parent.number == candidate.loose.number)
            return ParentLinks::none;
        // The root is the same on all volumes, so that it proves nothing of a record which lies in
        // space that anything may have had.
        if (parent.number == NTFSParser::rootRecord && candidate.hasUsedCluster)
            candidate.folder = listed_.volume->root.get();
        const auto& known = folders_[parent.number];
        if (known.node != nullptr && sequenceMatches(parent.sequence, known.sequence, known.inUse))
            candidate.folder = known.node;
        if (candidate.folder != nullptr)
            return ParentLinks::root;
        const auto* const other = find(parent.number);
        return other != nullptr && other->isDirectory
                && sequenceMatches(parent.sequence, other->sequence, other->inUse)
            ? static_cast<Index>(other - candidates_.data())
            : ParentLinks::none;
    }

    /// Adds what the MFT has of the record's extension records.
    void fetchExtensions(const MFTRecord& record, MFTRecords& records)
    {
        if (!record.hasAttributeList())
            return;
        const auto list = NTFSParser::loadAttributeList(context_, record);
        MFTRecord extension;
        for (const auto reference : NTFSParser::extensionsIn(list, *record.number))
            if (fetched_ < maxFetchedExtensions && ++fetched_ && hasOwn(reference.number, extension)
                && extension.isExtension())
                records.add(extension);
    }

    /// A record in a lost piece of the MFT describes a file that exists. One whose place was given
    /// up describes what was.
    void judgeEntry(MFTRecords::Entry& entry, const Candidate& candidate) const
    {
        auto& node = *entry.node;
        const bool exists = entry.inUse && candidate.isOnlyRecord && candidate.hasUsedCluster;
        node.status = exists ? EntryStatus::existing : EntryStatus::deleted;
        auto doubts = entry.doubts;
        if (node.isDirectory()) {
            node.note = chanceOf(doubts).note;
            return;
        }
        if (!exists)
            doubts.add(doubtsOf(map_.useOf(node.data, context_.geometry()), ntfsReuse));
        judge(node, doubts);
    }

    RecordReader& reader_;
    const NTFSParser::ListedVolume& listed_;
    NTFSContext context_;
    AllocationMap map_;
    std::vector<Candidate> candidates_; ///< by number, each number once
    std::unordered_map<std::uint64_t, KnownFolder> folders_;
    std::size_t fetched_ = 0;
};

} // namespace

void joinVolume(RecordReader& reader, const NTFSParser::ListedVolume& listed,
    std::vector<LooseRecord>& loose, const WorkProgress* progress)
{
    const auto& geometry = listed.info->geometry;
    const bool isPossible = geometry.hasPlace && listed.info->mft.size() > 0
        && std::ranges::any_of(
            loose, [&](const LooseRecord& one) { return isOnVolume(one, geometry); });
    if (!isPossible)
        return;
    JoiningRecords joining(reader, listed);
    const auto made = joining.dateOfMaking();
    if (!made)
        return;
    joining.gather(loose, *made, progress);
    if (!isCancelled(progress))
        joining.link();
    if (isCancelled(progress) || joining.count() == 0)
        return;
    joining.hang(loose);
    listed.volume->root->sortChildren();
    listed.volume->notes.push_back(std::to_string(joining.count())
        + " MFT-poster uden for den kendte del af $MFT blev fundet ved dyb scanning.");
    joining.removeFrom(loose);
}

} // namespace NTFSRebuild
