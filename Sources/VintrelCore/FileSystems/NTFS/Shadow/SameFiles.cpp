#include "VintrelCore/FileSystems/NTFS/Shadow/SameFiles.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/DeepInfo.h"

#include <algorithm>
#include <unordered_set>

namespace NTFSShadow {

namespace {

/// What is compared byte by byte of a shadow copy, because the system copied it although only its
/// neighbours changed. What lies elsewhere beyond counts as different.
constexpr std::uint64_t maxCompared = 268'435'456;
constexpr std::size_t comparedAtOnce = 131'072;

constexpr std::uint64_t sequenceOffset = 16; ///< in a record

/// What the system itself keeps in a file of this name: the content of shadow copies.
constexpr std::string_view storeSuffix = "{3808876b-c176-4e48-b7ae-04046e6cc752}";

/// Where a content lies, in pieces. In-memory content has none.
ExtentList placesOf(const FileData& data)
{
    if (const auto* extents = extentsOf(data))
        return *extents;
    ExtentList places;
    if (const auto* compressed = contentAs<CompressedRuns>(data))
        for (const auto& [lcn, clusters] : compressed->runs)
            places.push_back(
                { lcn ? std::optional(compressed->volumeOffset + *lcn * compressed->clusterSize)
                      : std::nullopt,
                    clusters * compressed->clusterSize });
    return places;
}

/// The sequence number of a record; 0 when it is not known.
std::uint16_t sequenceOf(DiskSource& source, const Volume& volume, std::uint64_t number)
{
    const auto* const info = dynamic_cast<const NTFSDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->geometry.recordSize == 0
        || number >= info->mft.size() / info->geometry.recordSize)
        return 0;
    std::array<std::uint8_t, 2> bytes {};
    info->mft.read(source, number * info->geometry.recordSize + sequenceOffset, bytes);
    return ByteView(bytes).u16le(0);
}

} // namespace

/// Compares files of one copy with those of the volume.
class SameFiles::Comparison {
public:
    explicit Comparison(DiskSource& source)
        : source_(source)
    {
    }

    bool isSame(const FileNode& file, const FileNode& living)
    {
        return file.size == living.size && file.created == living.created
            && file.modified == living.modified && file.status == living.status
            && isSame(file.data, living.data) && hasSameAttachments(file, living);
    }

private:
    bool hasSameAttachments(const FileNode& file, const FileNode& living)
    {
        if (!file.attachments || !living.attachments)
            return !file.attachments && !living.attachments;
        return std::ranges::equal(*file.attachments, *living.attachments,
            [&](const Attachment& one, const Attachment& other) {
                return one.name == other.name && one.size == other.size
                    && isSame(one.data, other.data);
            });
    }

    bool isSame(const FileData& one, const FileData& other)
    {
        if (one == other)
            return true;
        const auto places = placesOf(one);
        return one.index() == other.index() && !places.empty() && isSame(places, placesOf(other));
    }

    bool isSame(const ExtentList& ones, const ExtentList& others)
    {
        auto one = ones.begin();
        auto other = others.begin();
        std::uint64_t usedOfOne = 0, usedOfOther = 0;
        while (one != ones.end() && other != others.end()) {
            const auto length = std::min(one->length - usedOfOne, other->length - usedOfOther);
            if (!isSame(*one, usedOfOne, *other, usedOfOther, length))
                return false;
            usedOfOne += length;
            usedOfOther += length;
            if (usedOfOne == one->length) {
                ++one;
                usedOfOne = 0;
            }
            if (usedOfOther == other->length) {
                ++other;
                usedOfOther = 0;
            }
        }
        return one == ones.end() && other == others.end();
    }

    bool isSame(const Extent& one, std::uint64_t inOne, const Extent& other, std::uint64_t inOther,
        std::uint64_t length)
    {
        if (!one.offset || !other.offset)
            return !one.offset && !other.offset;
        return *one.offset + inOne == *other.offset + inOther
            || hasSameBytes(*one.offset + inOne, *other.offset + inOther, length);
    }

    bool hasSameBytes(std::uint64_t one, std::uint64_t other, std::uint64_t length)
    {
        if (length > left_)
            return false;
        left_ -= length;
        for (std::uint64_t done = 0; done < length; done += comparedAtOnce) {
            const auto count
                = static_cast<std::int64_t>(std::min<std::uint64_t>(comparedAtOnce, length - done));
            const auto ours = source_.readReporting(one + done, count, ReadMode::fast);
            const auto theirs = source_.readReporting(other + done, count, ReadMode::fast);
            if (ours.badBytes > 0 || theirs.badBytes > 0 || ours.data != theirs.data)
                return false;
        }
        return true;
    }

    DiskSource& source_;
    std::uint64_t left_ = maxCompared;
};

SameFiles::SameFiles(DiskSource& source, const Volume& volume)
    : source_(source)
    , volume_(volume)
{
    for (const auto* file : volume.root->allFiles())
        files_.emplace(file->fsID, file);
}

void SameFiles::removeFrom(Volume& snapshot, DiskSource& copy) const
{
    Comparison comparison(source_);
    std::vector<const FileNode*> same;
    for (const auto* file : snapshot.root->allFiles()) {
        const auto [first, last] = files_.equal_range(file->fsID);
        if (std::any_of(first, last,
                [&](const auto& living) { return comparison.isSame(*file, *living.second); }))
            same.push_back(file);
    }
    // In the order of the MFTs, which are read for it.
    std::ranges::sort(same, {}, &FileNode::fsID);
    std::unordered_set<const FileNode*> unwanted;
    for (const auto* file : same)
        if (sequenceOf(copy, snapshot, file->fsID) == sequenceOf(source_, volume_, file->fsID))
            unwanted.insert(file);
    std::vector<FileNode*> folders { snapshot.root.get() };
    snapshot.root->forEachDescendant([&](FileNode& node, std::size_t) {
        if (node.isDirectory())
            folders.push_back(&node);
    });
    // Those below come first, so that they are empty when their own folder is asked.
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder)
        (*folder)->removeChildren([&](const FileNode& node) {
            return node.isDirectory()
                ? node.children().empty()
                : unwanted.contains(&node) || node.name.ends_with(storeSuffix);
        });
}

} // namespace NTFSShadow
