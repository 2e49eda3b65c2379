#include "VintrelCore/FileSystems/Ext/LostVolumes.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/BlockMap.h"
#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Directory.h"
#include "VintrelCore/FileSystems/Ext/Inode.h"
#include "VintrelCore/FileSystems/Ext/Parser.h"
#include "VintrelCore/FileSystems/Ext/Remains.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"

#include <algorithm>
#include <map>
#include <utility>

using namespace ExtFormat;

namespace {

/// Made-up disks have superblocks in every sector, and each costs the reading of tables. Disks that
/// were in use have a handful that lead to no volume.
constexpr int maxRefusals = 64;

/// So many inodes with one seed are no chance.
constexpr std::size_t leastInodes = 3;
constexpr std::size_t maxSeeds = 65'536; ///< of one volume
constexpr std::size_t maxFolders = 8;    ///< that are asked for a seed
constexpr std::size_t maxFormerVolumes = 4;
constexpr std::uint64_t pieceSize = 1'048'576;

class Finder {
public:
    explicit Finder(LostVolumeSearch& search)
        : search_(search)
        , source_(search.source())
    {
    }

    void findBySuperblocks();
    void findFormerVolumes();
    void findRemains();

private:
    std::optional<ExtGeometry> geometryAt(std::uint64_t offset) const;
    bool isKnown(const ExtGeometry& geometry) const;
    bool knowsItself(const ExtGeometry& geometry, const ExtInode& folder) const;
    bool hasRoot(const ExtGeometry& geometry) const;
    void load(const ExtGeometry& geometry, std::uint64_t at);
    /// What inodes that have the same seed say of their volume.
    struct FormerInodes {
        std::size_t count = 0;
        std::vector<ExtInode> folders; ///< some of them
    };
    using Seeds = std::map<std::uint32_t, FormerInodes>;

    Seeds seedsIn(const ExtContext& context) const;
    void countSeeds(
        const ExtGeometry& geometry, std::uint32_t firstNumber, ByteView block, Seeds& seeds) const;
    bool isConfirmed(const ExtGeometry& geometry, const FormerInodes& found) const;

    LostVolumeSearch& search_;
    DiskSource& source_;
    int refusals_ = 0;
};

/// By a superblock's place the volume's start: a copy lies at the beginning of its group.
std::optional<ExtGeometry> Finder::geometryAt(std::uint64_t offset) const
{
    const auto bytes
        = source_.read(offset, static_cast<std::int64_t>(sizeof(Superblock)), ReadMode::thorough);
    const auto superblock = ExtSuperblock::decode(bytes);
    const auto geometry = superblock && ExtSuperblock::isSound(bytes)
        ? ExtGeometry::from(*superblock, 0)
        : std::nullopt;
    if (!geometry)
        return std::nullopt;
    const std::uint32_t group = superblock->groupNumber;
    const auto inVolume
        = group == 0 ? superblockOffset : geometry->firstBlockOf(group) * geometry->blockSize;
    if (group >= geometry->groupCount || inVolume > offset)
        return std::nullopt;
    return ExtGeometry::from(*superblock, offset - inVolume);
}

bool Finder::isKnown(const ExtGeometry& geometry) const
{
    return std::ranges::any_of(search_.volumes(), [&](const Volume* volume) {
        const auto* const context = dynamic_cast<const ExtContext*>(volume->deepContext.get());
        return context != nullptr && context->geometry().base == geometry.base
            && context->geometry().superblock.uuid == geometry.superblock.uuid;
    });
}

/// Whether the first block of a directory lies in its place: it has the directory's number in it.
bool Finder::knowsItself(const ExtGeometry& geometry, const ExtInode& folder) const
{
    if (!folder.isDirectory())
        return false;
    const ExtBlocks blocks(source_, geometry);
    if (folder.isInline())
        return true;
    ExtBlockMaps maps(geometry);
    const auto mapping = maps.read(folder, [](auto /*block*/, const auto& /*judge*/) {
        return Bytes(); // the inode names the first block itself, if there are few
    });
    return !mapping.runs.empty()
        && ExtDirectory::selfIn(blocks.read(mapping.runs.front().physical)) == folder.number;
}

/// Whether the root directory lies where the volume would have it. Copies of superblocks lie in
/// journals too, where nothing behind them is in its place.
bool Finder::hasRoot(const ExtGeometry& geometry) const
{
    const ExtBlocks blocks(source_, geometry);
    const ExtGroups groups(blocks);
    if (groups.count() == 0 || groups[0].inodeTable == 0)
        return false;
    const auto at = geometry.offsetOf(groups[0].inodeTable)
        + std::uint64_t { rootInode - 1 } * geometry.inodeSize;
    const auto slot = source_.read(at, geometry.inodeSize, ReadMode::thorough);
    const auto root = ExtInode::decode(geometry, rootInode, slot);
    return root.isAlive() && root.isSound && knowsItself(geometry, root);
}

void Finder::load(const ExtGeometry& geometry, std::uint64_t at)
{
    const bool isBackup = geometry.superblock.groupNumber != 0;
    if (isKnown(geometry) || refusals_ >= maxRefusals || (!isBackup && !hasRoot(geometry)))
        return;
    search_.reportFound(FileSystemType::ext, "-filsystem");
    const auto origin = isBackup ? std::string("Dyb scanning, sikkerhedskopi af superblok")
                                 : "Dyb scanning, superblok ved " + std::to_string(at);
    const auto trust = search_.hasVolume(FileSystemType::ext, geometry.base) ? ExtTrust::onlySound
                                                                             : ExtTrust::full;
    auto volume = ExtParser::build(source_, geometry, trust, origin, search_.progress());
    const bool isEmpty = volume == nullptr || volume->root->children().empty();
    if (isEmpty || !search_.keep(std::move(volume)))
        ++refusals_;
}

/// Those in their own place first: copies are from the making of the volume.
void Finder::findBySuperblocks()
{
    for (const bool wantsBackups : { false, true })
        for (const auto offset : search_.finds().extSuperblocks) {
            if (search_.isCancelled() || !search_.hasRoom())
                return;
            const auto geometry = geometryAt(offset);
            if (geometry && (geometry->superblock.groupNumber != 0) == wantsBackups)
                load(*geometry, offset);
        }
}

void Finder::countSeeds(
    const ExtGeometry& geometry, std::uint32_t firstNumber, ByteView block, Seeds& seeds) const
{
    for (std::uint32_t index = 0; index < geometry.inodesPerBlock(); ++index) {
        const auto slot
            = block.sub(std::int64_t { index } * geometry.inodeSize, geometry.inodeSize);
        const auto number = firstNumber + index;
        if (slot.u16le(0) == 0 || seeds.size() >= maxSeeds)
            continue;
        const auto seed = ExtInodes::volumeSeedOf(geometry, number, slot);
        if (!seed || *seed == geometry.checksumSeed)
            continue;
        const auto inode = ExtInode::decode(geometry, number, slot);
        auto& found = seeds[*seed];
        found.count += inode.hasKind() ? 1 : 0;
        if (inode.isDirectory() && found.folders.size() < maxFolders)
            found.folders.push_back(inode);
    }
}

/// How many inodes in the unused part of a volume's tables are of others, by the seeds of those.
Finder::Seeds Finder::seedsIn(const ExtContext& context) const
{
    Seeds seeds;
    const auto& geometry = context.geometry();
    const auto piece = pieceSize / geometry.blockSize;
    for (std::uint32_t group = 0; group < context.groups().count(); ++group) {
        const auto& place = context.groups()[group];
        const auto firstNumber = group * geometry.inodesPerGroup() + 1;
        for (std::uint64_t at = place.usedInodes / geometry.inodesPerBlock();
             place.inodeTable != 0 && at < geometry.tableBlocks(); at += piece) {
            if (search_.isCancelled())
                return {};
            const auto count = std::min(piece, geometry.tableBlocks() - at);
            const auto bytes = context.blocks().read(place.inodeTable + at, count);
            for (std::uint64_t index = 0; index < count; ++index)
                countSeeds(geometry,
                    static_cast<std::uint32_t>(
                        firstNumber + (at + index) * geometry.inodesPerBlock()),
                    ByteView(bytes).sub(
                        static_cast<std::int64_t>(index * geometry.blockSize), geometry.blockSize),
                    seeds);
        }
    }
    return seeds;
}

/// Inodes at another place than their own lead to seeds too, which mean nothing.
bool Finder::isConfirmed(const ExtGeometry& geometry, const FormerInodes& found) const
{
    return found.count >= leastInodes
        && std::ranges::any_of(
            found.folders, [&](const ExtInode& folder) { return knowsItself(geometry, folder); });
}

/// A volume that was made over another with the same layout leaves the tables as they are.
void Finder::findFormerVolumes()
{
    for (const auto* volume : search_.volumes()) {
        const auto* const context = dynamic_cast<const ExtContext*>(volume->deepContext.get());
        if (context == nullptr || !context->geometry().hasChecksums())
            continue;
        std::vector<std::pair<std::size_t, std::uint32_t>> former;
        auto geometry = context->geometry();
        for (const auto& [seed, found] : seedsIn(*context)) {
            geometry.checksumSeed = seed;
            if (isConfirmed(geometry, found))
                former.emplace_back(found.count, seed);
        }
        std::ranges::sort(former, std::ranges::greater {});
        former.resize(std::min(former.size(), maxFormerVolumes));
        for (const auto& [count, seed] : former) {
            geometry.checksumSeed = seed;
            search_.reportFound(FileSystemType::ext, "-filsystem");
            search_.keep(ExtParser::build(source_, geometry, ExtTrust::onlyInodes,
                "Dyb scanning, inoder fra et tidligere filsystem", search_.progress()));
        }
    }
}

/// The same of volumes without checksums, whose inodes tell by their directories where they lay.
void Finder::findRemains()
{
    for (const auto* volume : search_.volumes()) {
        const auto* const context = dynamic_cast<const ExtContext*>(volume->deepContext.get());
        if (context == nullptr || context->trust() != ExtTrust::full || search_.isCancelled())
            continue;
        const auto remains = ExtRemainders::find(*context, search_.finds());
        if (!remains)
            continue;
        search_.reportFound(FileSystemType::ext, "-filsystem");
        search_.keep(ExtParser::build(source_, *remains,
            "Dyb scanning, inoder fra et tidligere filsystem", search_.progress()));
    }
}

} // namespace

void ExtLostVolumes::find(LostVolumeSearch& search)
{
    Finder finder(search);
    finder.findBySuperblocks();
    finder.findFormerVolumes();
    finder.findRemains();
}
