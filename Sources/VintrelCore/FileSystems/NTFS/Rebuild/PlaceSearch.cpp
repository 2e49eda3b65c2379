#include "VintrelCore/FileSystems/NTFS/Rebuild/PlaceSearch.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/IndexBlock.h"
#include "VintrelCore/Model/FileTypes.h"

#include <algorithm>

namespace NTFSRebuild {

namespace {

constexpr std::size_t maxWitnesses = 400; // of a group
constexpr std::size_t maxPairs = 2'500;   // finds that a witness may be
/// One in so many witnesses must support a place.
constexpr std::size_t minSupportShare = 10;

/// The most common one, where no file tells it.
constexpr std::uint64_t usualClusterSize = 4096;

constexpr std::int64_t headSize = 64; // of a file; it tells the kind

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

/// The key that most speak for, the smallest of several; none when there is no vote.
std::optional<std::uint64_t> mostVoted(const std::map<std::uint64_t, std::size_t>& votes)
{
    const auto most
        = std::ranges::max_element(votes, {}, [](const auto& vote) { return vote.second; });
    return most != votes.end() ? std::optional(most->first) : std::nullopt;
}

} // namespace

PlaceSearch::PlaceSearch(DiskSource& source, const NTFSParser::RebuildHints& hints)
    : source_(source)
    , hints_(hints)
    , recogniser_(source, carvedCategories())
{
    for (const auto& file : hints.carved)
        finds_[file.ext].push_back(&file);
}

std::optional<Evidence> PlaceSearch::gather(
    RecordReader& reader, const RecordGroup& group, const WorkProgress* progress) const
{
    Evidence evidence;
    MFTRecord record;
    for (const auto& loose : group) {
        if (isCancelled(progress))
            return std::nullopt;
        if (!reader.read(loose, record) || !record.fixupOK)
            continue;
        if (const auto size = clusterSizeOf(record))
            ++evidence.clusterSizes[*size];
        auto* const name = record.bestName();
        if (evidence.witnesses.size() >= maxWitnesses || name == nullptr)
            continue;
        if (record.isDirectory && record.indexLCN())
            evidence.witnesses.push_back({ .lcn = *record.indexLCN(),
                .folder = { loose.number, record.sequence },
                .isInUse = record.inUse });
        else if (const auto lcn = firstLCN(record); lcn && isRecognisable(name->name))
            evidence.witnesses.push_back({ .lcn = *lcn,
                .ext = commonExtension(name->name),
                .size = record.data.front().dataSize });
    }
    return evidence;
}

/// Whether a file's beginning can tell its kind. A sweep that looked for files has found some of
/// every kind that is worth asking for.
bool PlaceSearch::isRecognisable(std::string_view name) const
{
    return finds_.empty() ? categoryOf(name) != FileCategory::other
                          : finds_.contains(commonExtension(name));
}

Placement PlaceSearch::bestPlace(const Evidence& evidence, std::uint32_t recordSize)
{
    const std::uint64_t clusterSize = mostVoted(evidence.clusterSizes).value_or(usualClusterSize);
    auto geometries = hints_.geometries;
    const auto add = [&](std::uint64_t base) {
        if (base < source_.size())
            geometries.push_back(
                { .base = base, .clusterSize = clusterSize, .volumeSize = source_.size() - base });
    };
    std::ranges::for_each(hints_.starts, add);
    // What follows a file's end mark belongs to the file and not to the find, so that the sizes may
    // all differ.
    for (const bool isSameSize : { true, false })
        if (const auto base = baseByFinds(evidence, clusterSize, isSameSize))
            add(*base);

    const auto& witnesses = evidence.witnesses;
    Placement best { .geometry = { .hasPlace = false, .clusterSize = clusterSize },
        .witnesses = witnesses.size() };
    for (const auto& geometry : geometries) {
        const auto support = static_cast<std::size_t>(std::ranges::count_if(
            witnesses, [&](const Witness& witness) { return supports(witness, geometry); }));
        if (support > best.support && support * minSupportShare >= witnesses.size()) {
            best.support = support;
            best.geometry = geometry;
        }
    }
    best.geometry.recordSize = recordSize;
    return best;
}

bool PlaceSearch::supports(const Witness& witness, const NTFSGeometry& geometry)
{
    const auto offset = geometry.offsetOf(witness.lcn);
    if (!offset || *offset >= source_.size())
        return false;
    if (witness.ext.empty())
        return isIndexOf(witness, *offset);
    const auto head = source_.read(*offset, headSize, ReadMode::thorough);
    const auto found = recogniser_.check(head, *offset);
    return found && found->ext == witness.ext;
}

/// Whether the index that begins there is that of this folder, and not of any other one.
bool PlaceSearch::isIndexOf(const Witness& witness, std::uint64_t offset)
{
    const auto size = NTFSParser::sizeOfIndexBlock(
        source_.read(offset, NTFSParser::indexHeaderSize, ReadMode::thorough));
    if (!size)
        return false;
    auto block = source_.read(offset, static_cast<std::int64_t>(*size), ReadMode::thorough);
    const auto folder = NTFSParser::folderOfIndexBlock(block);
    return folder && folder->number == witness.folder.number
        && sequenceMatches(folder->sequence, witness.folder.sequence, witness.isInUse);
}

/// Where the volume begins when files that were found by their content are those that most records
/// speak of: files of the same kind and, if asked, of the same size. None when there are none.
std::optional<std::uint64_t> PlaceSearch::baseByFinds(
    const Evidence& evidence, std::uint64_t clusterSize, bool isSameSize) const
{
    std::map<std::uint64_t, std::size_t> votes; // for where the volume begins
    for (const auto& witness : evidence.witnesses) {
        const auto sameKind = finds_.find(witness.ext);
        if (sameKind == finds_.end())
            continue;
        std::size_t pairs = 0;
        for (const auto* file : sameKind->second)
            if ((!isSameSize || file->size == witness.size)
                && witness.lcn <= file->offset / clusterSize && ++pairs <= maxPairs)
                ++votes[file->offset - witness.lcn * clusterSize];
    }
    return mostVoted(votes);
}

} // namespace NTFSRebuild
