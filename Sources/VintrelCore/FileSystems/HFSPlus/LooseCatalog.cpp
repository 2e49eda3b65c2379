#include "VintrelCore/FileSystems/HFSPlus/LooseCatalog.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Context.h"
#include "VintrelCore/FileSystems/HFSPlus/Node.h"
#include "VintrelCore/FileSystems/HFSPlus/PlaceSearch.h"
#include "VintrelCore/FileSystems/HFSPlus/VolumeHeader.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <string>

using namespace HFSPlusFormat;

namespace {

/// Leaves that lie further apart are those of different catalogs.
constexpr std::uint64_t maxGap = 16'777'216;

/// Catalogs that are looked into. A disk has that of its volume, and those of volumes that it had
/// before.
constexpr int maxCatalogs = 32;

/// What lies on the source and is, or may be, a catalog in one piece.
struct FoundTree {
    std::uint64_t offset = 0; ///< of its header node, or where that was
    std::uint64_t size = 0;   ///< in bytes
};

HFSPlusPlace::CatalogPlace placeOf(const FoundTree& tree) { return { tree.offset, tree.size }; }

class Finder {
public:
    explicit Finder(LostVolumeSearch& search)
        : search_(search)
        , source_(search.source())
    {
    }

    void find();

private:
    void tryTree(const FoundTree& tree);
    bool tryHeaderCopies(const FoundTree& tree);
    void place(const FoundTree& tree);
    std::optional<HeaderNode> headerNodeAt(std::uint64_t offset) const;
    ForkData overflowTree(const HFSPlusPlace::Geometry& geometry) const;

    LostVolumeSearch& search_;
    DiskSource& source_;
    int tried_ = 0;
};

void Finder::find()
{
    for (const auto offset : search_.finds().hfsTrees)
        if (const auto header = headerNodeAt(offset);
            header && header->maxKeyLength == maxCatalogKeyLength)
            tryTree({ offset, std::uint64_t { header->totalNodes } * header->nodeSize });
    // What is left are the leaves of catalogs whose header nodes are lost.
    const auto& leaves = search_.finds().hfsLeaves;
    for (std::size_t first = 0; first < leaves.size();) {
        std::size_t next = first + 1;
        while (next < leaves.size() && leaves[next] - leaves[next - 1] <= maxGap)
            ++next;
        const std::uint64_t nodeSize = HFSPlusLooseCatalog::nodeSizeAt(source_, leaves[first]);
        if (nodeSize != 0 && leaves[first] >= nodeSize)
            tryTree({ leaves[first] - nodeSize, leaves[next - 1] - leaves[first] + 2 * nodeSize });
        first = next;
    }
}

void Finder::tryTree(const FoundTree& tree)
{
    if (search_.isCancelled() || tried_ >= maxCatalogs || tree.size == 0
        || HFSPlusLooseCatalog::isInVolume(search_, tree.offset))
        return;
    ++tried_;
    if (!tryHeaderCopies(tree))
        place(tree);
}

/// Copies of the header say how far the catalog lies from the volume's start, and where other
/// structures are by which that start is confirmed.
bool Finder::tryHeaderCopies(const FoundTree& tree)
{
    for (const auto found : search_.finds().hfsHeaders) {
        const auto bytes
            = source_.read(found + volumeHeaderOffset, sizeof(VolumeHeader), ReadMode::thorough);
        const auto header = HFSPlusVolumeHeader::decode(bytes);
        if (!header)
            continue;
        const std::uint64_t blockSize = header->start.blockSize;
        const auto catalog = header->catalogFile.extents.front().startBlock * blockSize;
        const auto overflow = header->extentsFile.extents.front().startBlock * blockSize;
        if (catalog > tree.offset || !headerNodeAt(tree.offset - catalog + overflow))
            continue;
        search_.reportFound(FileSystemType::hfsplus, "-filsystem");
        return search_.keep(HFSContext(source_, tree.offset - catalog, *header)
                                .build("Dyb scanning, kopi af volumeheader", search_.progress(),
                                    { .mayLackHeader = true }));
    }
    return false;
}

void Finder::place(const FoundTree& tree)
{
    search_.reportFound(FileSystemType::hfsplus, "-filsystem");
    const auto found = HFSPlusPlace::find(search_, placeOf(tree));
    if (!found)
        return;
    const auto& [geometry, isCertain, isByMap] = *found;
    VolumeHeader header {};
    header.start.signature = signatureHFSPlus;
    header.start.version = versionHFSPlus;
    header.start.blockSize = static_cast<std::uint32_t>(geometry.blockSize);
    header.start.totalBlocks = static_cast<std::uint32_t>(
        std::min<std::uint64_t>((source_.size() - geometry.base) / geometry.blockSize,
            std::numeric_limits<std::uint32_t>::max()));
    header.catalogFile = geometry.forkAt(tree.offset, tree.size);
    header.extentsFile = overflowTree(geometry);
    auto volume = HFSContext(source_, geometry.base, header)
                      .build("Dyb scanning, katalog ved " + std::to_string(tree.offset),
                          search_.progress(), { .mayLackHeader = true });
    if (!volume)
        return;
    volume->notes.push_back("Volumeheaderen er tabt; filsystemets placering er fundet ud fra "
        + std::string(isByMap ? "dets kort over brugte blokke." : "filernes indhold."));
    if (!isCertain)
        for (auto* file : volume->root->allFiles())
            judgeFurther(*file, Doubt::uncertainPlace);
    search_.keep(std::move(volume));
}

std::optional<HeaderNode> Finder::headerNodeAt(std::uint64_t offset) const
{
    if (offset >= source_.size())
        return std::nullopt;
    const auto bytes = source_.read(offset, sizeof(HeaderNode), ReadMode::thorough);
    return HFSPlusNode::looksLikeHeader(bytes) ? ByteView(bytes).load<HeaderNode>(0) : std::nullopt;
}

/// The tree of the extents overflow file: the first one of its kind in the volume.
ForkData Finder::overflowTree(const HFSPlusPlace::Geometry& geometry) const
{
    for (const auto offset : search_.finds().hfsTrees) {
        const auto header = offset >= geometry.base ? headerNodeAt(offset) : std::nullopt;
        if (header && header->maxKeyLength == overflowKeyLength
            && (offset - geometry.base) % geometry.blockSize == 0)
            return geometry.forkAt(offset, std::uint64_t { header->totalNodes } * header->nodeSize);
    }
    return {};
}

} // namespace

namespace HFSPlusLooseCatalog {

bool isInVolume(const LostVolumeSearch& search, std::uint64_t offset)
{
    return std::ranges::any_of(search.volumes(), [&](const Volume* volume) {
        return volume->type == FileSystemType::hfsplus && offset >= volume->offset
            && offset - volume->offset < volume->size;
    });
}

std::uint32_t nodeSizeAt(DiskSource& source, std::uint64_t offset)
{
    // The smallest one first: small leaves in a row can look like a large one.
    constexpr std::array<std::uint32_t, 7> sizes { 512, 1024, 2048, 4096, 8192, 16'384, 32'768 };
    const auto bytes = source.read(offset, maxNodeSize, ReadMode::thorough);
    const auto size = std::ranges::find_if(
        sizes, [&](std::uint32_t size) { return HFSPlusNode::looksLikeLeaf(bytes, size); });
    return size != sizes.end() ? *size : 0;
}

void findVolumes(LostVolumeSearch& search) { Finder(search).find(); }

} // namespace HFSPlusLooseCatalog
