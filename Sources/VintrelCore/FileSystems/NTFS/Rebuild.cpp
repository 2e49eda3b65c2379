#include "VintrelCore/FileSystems/NTFS/Rebuild.h"

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/MFT.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/FileSystems/NTFS/Tree.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <map>
#include <set>
#include <unordered_set>

namespace NTFSParser {

namespace {

constexpr std::size_t leastMatches = 2; // records at the place that an MFT's own record gives them
constexpr std::size_t maxOwnRecords = 64; // copies of record 0 that are looked into
constexpr std::size_t maxReadings = 64;   // geometries that they suggest
constexpr std::size_t maxGroups = 8;      // volumes, or states of one, told apart by numbers alone
constexpr std::size_t maxWitnesses
    = 400; // files and folders of a group that its place is tested with
constexpr std::size_t maxPairs = 2'500; // finds that a witness may be
constexpr std::size_t leastShare
    = 10; // one in so many witnesses must speak for a place that finds suggest
constexpr std::uint64_t maxClusterSize = 2'097'152;

/// A record that belongs to no volume yet.
struct Loose {
    std::uint64_t offset;
    std::uint64_t number;
    std::uint32_t size; ///< of the record, in bytes
};

/// Whether one record says of a file what the other says: its name, place and size, and since when
/// it has been there. An older state of a file, with another size, is worth being listed.
bool saysTheSame(const MFTRecord& one, const MFTRecord& other)
{
    const auto size = [](const MFTRecord& record) {
        return record.data.empty() ? 0 : record.data.front().dataSize;
    };
    if (one.number != other.number || one.names.empty() || other.names.empty()
        || size(one) != size(other))
        return false;
    const auto& name = one.names.front();
    const auto& otherName = other.names.front();
    return name.name == otherName.name && name.parent == otherName.parent
        && name.created == otherName.created;
}

/// A file or folder by which the place of a volume can be tested: something recognisable begins at
/// its first cluster.
struct Witness {
    std::uint64_t lcn;
    std::string ext;    ///< empty for a folder, whose index begins with "INDX"
    std::uint64_t size; ///< of the file, in bytes
};

/// The cluster size that a file's allocated size and its runs agree on; 0 when they do not.
std::uint64_t clusterSizeOf(const DataFragment& fragment)
{
    const std::uint64_t clusters = clusterCount(fragment.runs);
    if (fragment.isResident || fragment.startVCN != 0 || fragment.isSparse || fragment.isCompressed
        || clusters == 0 || fragment.allocatedSize % clusters != 0)
        return 0;
    const std::uint64_t size = fragment.allocatedSize / clusters;
    return size >= 512 && size <= maxClusterSize && std::has_single_bit(size) ? size : 0;
}

/// Where the first cluster of a record's content lies; none when it has none.
std::optional<std::uint64_t> firstLCN(const MFTRecord& record)
{
    if (record.data.empty() || record.data.front().isResident || record.data.front().startVCN != 0
        || record.data.front().runs.empty())
        return std::nullopt;
    return record.data.front().runs.front().lcn;
}

/// As carved files are called.
std::string commonExtension(std::string_view name)
{
    auto ext = fileExtension(name);
    constexpr std::pair<std::string_view, const char*> aliases[] = { { "jpeg", "jpg" },
        { "tiff", "tif" }, { "aiff", "aif" }, { "aifc", "aif" }, { "oga", "ogg" } };
    for (const auto& [alias, common] : aliases)
        if (ext == alias)
            return common;
    return ext;
}

class Rebuilder {
public:
    Rebuilder(DiskSource& source, const RebuildHints& hints, WorkProgress* progress)
        : source_(source)
        , hints_(hints)
        , progress_(progress)
        , recogniser_(source, carvedCategories())
    {
        for (const auto& file : hints.carved)
            foundKinds_.insert(file.ext);
    }

    VolumeList rebuild(std::span<const std::uint64_t> offsets)
    {
        survey(offsets);
        buildAroundOwnRecords();
        for (const auto& group : groupByNumber())
            build(group);
        return std::move(volumes_);
    }

private:
    using Group = std::vector<Loose>;

    bool readRecord(const Loose& loose, MFTRecord& record)
    {
        buffer_.resize(loose.size);
        source_.readReporting(loose.offset, std::span(buffer_), ReadMode::thorough);
        return parseRecord(buffer_, std::nullopt, record) && record.number == loose.number;
    }

    /// Only records that carry their number, as all since Windows XP do: what belongs where cannot
    /// be told otherwise.
    void survey(std::span<const std::uint64_t> offsets)
    {
        std::array<std::uint8_t, recordHeaderSize> header;
        for (const auto offset : offsets) {
            if (isCancelled(progress_))
                return;
            source_.readReporting(offset, std::span(header), ReadMode::thorough);
            const auto identity = identityOfRecord(header);
            if (!identity)
                continue;
            const Loose loose { offset, identity->number, identity->size };
            if (!isListed(loose))
                loose_.push_back(loose);
        }
    }

    /// Whether this is an old copy of a record of a volume that it lies on: defragmenting leaves
    /// pieces of the MFT behind, and snapshots keep them. The system's own records are alike on all
    /// volumes, and say where an MFT lay.
    bool isListed(const Loose& loose)
    {
        MFTRecord record, current;
        return loose.number >= firstUserRecord
            && std::ranges::any_of(hints_.volumes, [&](const NTFSDeepInfo* volume) {
                   const auto& geometry = volume->geometry;
                   if (loose.offset < geometry.base
                       || loose.offset - geometry.base >= geometry.volumeSize
                       || loose.size != geometry.recordSize
                       || loose.number >= volume->mft.size() / loose.size)
                       return false;
                   Bytes bytes(loose.size);
                   volume->mft.read(source_, loose.number * loose.size, bytes);
                   return parseRecord(bytes, std::nullopt, current) && readRecord(loose, record)
                       && saysTheSame(record, current);
               });
    }

    /// Geometries under which the record 0 at this place describes the MFT that it belongs to.
    std::vector<NTFSGeometry> geometriesOf(const Loose& own)
    {
        std::vector<NTFSGeometry> geometries;
        MFTRecord record;
        if (!readRecord(own, record))
            return geometries;
        const auto mftLCN = firstLCN(record);
        if (!mftLCN)
            return geometries;
        // With an attribute list the record has the first runs only, and a size that is that of all
        // of them.
        std::uint64_t clusterSize
            = record.hasAttributeList() ? 0 : clusterSizeOf(record.data.front());
        const Loose next { own.offset + own.size, 1, own.size };
        std::optional<std::uint64_t> mirrorLCN;
        if (readRecord(next, record))
            mirrorLCN = firstLCN(record);
        if (clusterSize == 0 && mirrorLCN)
            clusterSize = clusterSizeOf(record.data.front());

        const auto add = [&](std::uint64_t lcn, std::uint64_t size) {
            if (size == 0 || lcn > own.offset / size)
                return;
            const std::uint64_t base = own.offset - lcn * size;
            geometries.push_back({ .base = base,
                .clusterSize = size,
                .recordSize = own.size,
                .volumeSize = source_.size() - base,
                .mftLCN = *mftLCN,
                .mirrorLCN = mirrorLCN.value_or(*mftLCN) });
        };
        add(*mftLCN, clusterSize);
        if (!mirrorLCN || *mirrorLCN == *mftLCN)
            return geometries;
        add(*mirrorLCN, clusterSize); // this may be the copy
        // The distance between the two tells the cluster size as well.
        for (const auto& other : ownRecords_) {
            const bool isAscending = *mirrorLCN > *mftLCN;
            const std::uint64_t clusters
                = isAscending ? *mirrorLCN - *mftLCN : *mftLCN - *mirrorLCN;
            const std::uint64_t bytes
                = std::max(other.offset, own.offset) - std::min(other.offset, own.offset);
            const std::uint64_t size = bytes / clusters;
            if (bytes % clusters == 0 && size >= 512 && size <= maxClusterSize
                && std::has_single_bit(size) && size != clusterSize)
                add((other.offset > own.offset) == isAscending ? *mftLCN : *mirrorLCN, size);
        }
        return geometries;
    }

    /// The indices of the loose records that lie where this MFT has them.
    std::vector<std::size_t> recordsOf(const MappedStream& mft, std::uint32_t recordSize) const
    {
        std::vector<std::size_t> matches;
        for (std::size_t i = 0; i < loose_.size(); ++i)
            if (loose_[i].size == recordSize
                && mft.at(loose_[i].number * recordSize).offset == loose_[i].offset)
                matches.push_back(i);
        return matches;
    }

    /// Volumes whose MFT still has its first record, or the copy of it: as good as with a boot
    /// sector.
    void buildAroundOwnRecords()
    {
        MFTRecord first;
        for (const auto& loose : loose_)
            if (loose.number == 0 && ownRecords_.size() < maxOwnRecords && readRecord(loose, first)
                && firstLCN(first))
                ownRecords_.push_back(loose); // blank records may carry the number 0 too

        struct Reading {
            NTFSGeometry geometry;
            MappedStream mft;
            std::size_t matches;
        };
        std::vector<Reading> readings;
        std::set<std::pair<std::uint64_t, std::uint64_t>>
            known; // base and first cluster of the MFT
        for (const auto& own : ownRecords_)
            for (const auto& geometry : geometriesOf(own)) {
                if (known.size() == maxReadings
                    || !known.emplace(geometry.base, geometry.mftLCN).second)
                    continue;
                std::vector<std::string> notes;
                if (auto mft = locateMFT(NTFSContext(source_, geometry), notes)) {
                    const auto matches = recordsOf(*mft, geometry.recordSize).size();
                    readings.push_back({ geometry, std::move(*mft), matches });
                }
            }
        std::ranges::stable_sort(readings, std::ranges::greater {}, &Reading::matches);
        for (const auto& reading : readings) {
            if (isCancelled(progress_))
                return;
            const auto matches
                = recordsOf(reading.mft, reading.geometry.recordSize); // what better readings left
            if (matches.size() < leastMatches)
                continue;
            // Not whatever lies in the place of the MFT by now: another volume may have its own
            // there.
            const NTFSContext context(source_, reading.geometry);
            MFTRecords records(context);
            MFTRecord record;
            for (const auto index : matches) {
                auto& loose = loose_[index];
                buffer_.resize(loose.size);
                reading.mft.read(source_, loose.number * loose.size, buffer_);
                if (parseRecord(buffer_, std::nullopt, record) && record.number == loose.number)
                    records.add(record);
                loose.size = 0;
            }
            finish(context, std::move(records), matches.size(), reading.mft);
            eraseMirror(reading.geometry);
            std::erase_if(loose_, [](const Loose& loose) { return loose.size == 0; });
        }
    }

    void eraseMirror(const NTFSGeometry& geometry)
    {
        const auto start = geometry.offsetOf(geometry.mirrorLCN);
        if (start)
            std::erase_if(loose_, [&](const Loose& loose) {
                return loose.offset >= *start && loose.offset - *start < geometry.mirrorSize();
            });
    }

    /// Records whose distance from the beginning of their MFT is the same stand together; so do
    /// those that could be pieces of one MFT, no number twice.
    std::vector<Group> groupByNumber() const
    {
        std::map<std::uint64_t, Group>
            pieces; // by where an MFT in one piece would begin; this may wrap around
        for (const auto& loose : loose_)
            pieces[loose.offset - loose.number * loose.size].push_back(loose);
        std::vector<const Group*> byPlace;
        byPlace.reserve(pieces.size());
        for (const auto& [start, piece] : pieces)
            byPlace.push_back(&piece);
        // The largest first: a stray copy of a record must not part the pieces of an MFT.
        std::ranges::sort(byPlace, [](const Group* one, const Group* other) {
            return one->size() != other->size() ? one->size() > other->size()
                                                : one->front().offset < other->front().offset;
        });

        std::vector<Group> groups;
        std::vector<std::unordered_set<std::uint64_t>> numbers;
        for (const auto* piece : byPlace) {
            std::size_t target = 0;
            while (target < groups.size()
                && (groups[target].front().size != piece->front().size
                    || std::ranges::any_of(*piece, [&](const Loose& loose) {
                           return numbers[target].contains(loose.number);
                       })))
                ++target;
            if (target == maxGroups) // older states of a volume that was formatted again and again
                --target;
            if (target == groups.size()) {
                groups.emplace_back();
                numbers.emplace_back();
            }
            for (const auto& loose : *piece) {
                groups[target].push_back(loose);
                numbers[target].insert(loose.number);
            }
        }
        return groups;
    }

    void build(const Group& group)
    {
        MFTRecord record;
        std::vector<Witness> witnesses;
        std::map<std::uint64_t, std::size_t> clusterSizes; // how many files speak for each
        for (const auto& loose : group) {
            if (isCancelled(progress_))
                return;
            if (!readRecord(loose, record) || !record.fixupOK)
                continue;
            if (!record.data.empty())
                if (const auto size = clusterSizeOf(record.data.front()))
                    ++clusterSizes[size];
            auto* const name = record.bestName();
            if (witnesses.size() >= maxWitnesses || name == nullptr)
                continue;
            if (record.isDirectory && record.indexLCN)
                witnesses.push_back({ *record.indexLCN, "", 0 });
            else if (const auto lcn = firstLCN(record); lcn && isRecognisable(name->name))
                witnesses.push_back(
                    { *lcn, commonExtension(name->name), record.data.front().dataSize });
        }
        const auto geometry = choose(group.front().size, witnesses, clusterSizes);

        const NTFSContext context(source_, geometry);
        MFTRecords records(context);
        for (const auto& loose : group)
            if (!isCancelled(progress_) && readRecord(loose, record))
                records.add(record);
        finish(context, std::move(records), group.size(), {});
    }

    /// Whether a file's beginning can tell its kind. A sweep that looked for files has found some
    /// of every kind that is worth asking for.
    bool isRecognisable(std::string_view name) const
    {
        return foundKinds_.empty() ? categoryOf(name) != FileCategory::other
                                   : foundKinds_.contains(commonExtension(name));
    }

    /// The geometry under which most witnesses make sense; one without a place when none of them
    /// does under any.
    NTFSGeometry choose(std::uint32_t recordSize, const std::vector<Witness>& witnesses,
        const std::map<std::uint64_t, std::size_t>& clusterSizes)
    {
        const auto likeliest = std::ranges::max_element(
            clusterSizes, {}, [](const auto& candidate) { return candidate.second; });
        const std::uint64_t clusterSize = likeliest != clusterSizes.end() ? likeliest->first : 4096;

        auto candidates = hints_.geometries;
        const auto add = [&](std::uint64_t base) {
            if (base < source_.size())
                candidates.push_back({ .base = base,
                    .clusterSize = clusterSize,
                    .volumeSize = source_.size() - base });
        };
        std::ranges::for_each(hints_.starts, add);
        const std::size_t hinted = candidates.size();
        // What follows a file's end mark belongs to the file and not to the find, so that the sizes
        // may all differ.
        for (const bool isSameSize : { true, false })
            if (const auto base = baseByFinds(witnesses, clusterSize, isSameSize))
                add(*base);
        NTFSGeometry best { .hasPlace = false, .clusterSize = clusterSize };
        std::size_t mostSense = 0;
        for (std::size_t i = 0; i < candidates.size(); ++i) {
            const auto& candidate = candidates[i];
            const auto sense = static_cast<std::size_t>(std::ranges::count_if(
                witnesses, [&](const Witness& witness) { return makesSense(witness, candidate); }));
            if (sense > mostSense && (i < hinted || sense * leastShare >= witnesses.size())) {
                mostSense = sense;
                best = candidate;
            }
        }
        best.recordSize = recordSize;
        return best;
    }

    bool makesSense(const Witness& witness, const NTFSGeometry& geometry)
    {
        const auto offset = geometry.offsetOf(witness.lcn);
        if (!offset || *offset >= source_.size())
            return false;
        const auto head = source_.read(*offset, 64, ReadMode::thorough);
        if (witness.ext.empty())
            return ByteView(head).matches("INDX", 0);
        const auto found = recogniser_.check(head, *offset);
        return found && found->ext == witness.ext;
    }

    /// Where the volume begins when files that were found by their content are those that most
    /// records speak of: files of the same kind and, if asked, of the same size. None when there
    /// are none.
    std::optional<std::uint64_t> baseByFinds(
        const std::vector<Witness>& witnesses, std::uint64_t clusterSize, bool isSameSize) const
    {
        std::map<std::string, std::vector<const CarvedFile*>> finds;
        for (const auto& file : hints_.carved)
            finds[file.ext].push_back(&file);
        std::map<std::uint64_t, std::size_t> votes;
        for (const auto& witness : witnesses) {
            const auto same = finds.find(witness.ext);
            if (same == finds.end())
                continue;
            std::size_t pairs = 0;
            for (const auto* file : same->second)
                if ((!isSameSize || file->size == witness.size)
                    && witness.lcn <= file->offset / clusterSize && ++pairs <= maxPairs)
                    ++votes[file->offset - witness.lcn * clusterSize];
        }
        const auto best
            = std::ranges::max_element(votes, {}, [](const auto& vote) { return vote.second; });
        return best != votes.end() ? std::optional(best->first) : std::nullopt;
    }

    void finish(const NTFSContext& context, MFTRecords records, std::size_t count, MappedStream mft)
    {
        auto volume = buildVolume(context, std::move(records), "Dyb scanning, MFT-poster");
        if (volume->root->children().empty())
            return;
        volume->notes.push_back(
            "Genopbygget ud fra " + std::to_string(count) + " MFT-poster fundet ved dyb scanning.");
        if (!context.geometry().hasPlace)
            volume->notes.emplace_back(
                "Volumenets placering kendes ikke. Kun små filer kan gendannes.");
        volume->deepContext = std::make_unique<NTFSDeepInfo>(context.geometry(), std::move(mft));
        volumes_.push_back(std::move(volume));
    }

    DiskSource& source_;
    const RebuildHints& hints_;
    WorkProgress* progress_;
    Carver recogniser_;
    std::set<std::string> foundKinds_; ///< extensions of files found by content
    Bytes buffer_;
    std::vector<Loose> loose_;
    std::vector<Loose> ownRecords_;
    VolumeList volumes_;
};

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> records,
    const RebuildHints& hints, WorkProgress* progress)
{
    return Rebuilder(source, hints, progress).rebuild(records);
}

std::vector<std::uint64_t> looseRecords(
    std::span<const std::uint64_t> records, const VolumeList& volumes)
{
    std::vector<ByteRange> taken;
    for (const auto& volume : volumes) {
        const auto* info = dynamic_cast<const NTFSDeepInfo*>(volume->deepContext.get());
        if (info == nullptr)
            continue;
        for (const auto& extent : info->mft.extents())
            if (extent.offset)
                taken.push_back({ *extent.offset, *extent.offset + extent.length });
        const auto& geometry = info->geometry;
        if (const auto mirror = geometry.offsetOf(geometry.mirrorLCN))
            taken.push_back({ *mirror, *mirror + geometry.mirrorSize() });
    }
    std::ranges::sort(taken, {}, &ByteRange::start);
    std::vector<std::uint64_t> loose;
    std::uint64_t takenTo = 0;
    auto range = taken.begin();
    for (const auto offset : records) {
        for (; range != taken.end() && range->start <= offset; ++range)
            takenTo = std::max(takenTo, range->end);
        if (offset >= takenTo)
            loose.push_back(offset);
    }
    return loose;
}

} // namespace NTFSParser
