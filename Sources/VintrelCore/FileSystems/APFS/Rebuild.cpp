#include "VintrelCore/FileSystems/APFS/Rebuild.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/ContainerState.h"
#include "VintrelCore/FileSystems/APFS/LooseGroups.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/FileSystems/APFS/Superblock.h"
#include "VintrelCore/FileSystems/APFS/VolumeReader.h"
#include "VintrelCore/FileSystems/APFS/VolumeSuperblock.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

using namespace APFSFormat;

namespace {

/// The only block size that a sweep recognises leaves of.
constexpr std::uint64_t blockSize = 4'096;
constexpr std::size_t maxStarts = 16;        ///< of containers, those with the most witnesses
constexpr std::size_t maxVolumes = 100;      ///< as many as a container has slots for
constexpr std::size_t maxVersionsTried = 64; ///< of one superblock

constexpr const char* origin = "Dyb scanning, løse APFS-metadata";

/// A superblock of a volume that lies somewhere on the source.
struct FoundSuperblock {
    std::uint64_t offset = 0; ///< in bytes
    VolumeSuperblock stored {};
};

/// The versions of one volume's superblock, newest first.
using Versions = std::vector<FoundSuperblock>;

/// A volume of which it is known where its container begins.
struct Placed {
    std::uint64_t start = 0; ///< in bytes
    VolumeSuperblock chosen {};
    Versions versions;
};

class Rebuilder {
public:
    explicit Rebuilder(LostVolumeSearch& search)
        : search_(search)
        , source_(search.source())
    {
    }

    void run()
    {
        findStarts();
        auto nameless = readBySuperblocks(findSuperblocks());
        auto groups = groupLeaves();
        for (auto& group : groups)
            readGroup(group, nameless);
    }

private:
    Bytes blockAt(std::uint64_t offset) const
    {
        return APFSBlockReader::readAvailable(source_, offset, blockSize);
    }

    /// Where containers begin, by object maps: those know the number of their block.
    void findStarts()
    {
        std::map<std::uint64_t, std::size_t> votes;
        for (const auto offset : search_.finds().apfsObjectMaps) {
            if (search_.isCancelled())
                return;
            const auto block = blockAt(offset);
            const auto header = ByteView(block).load<ObjectHeader>(0);
            if (header && header->oid <= offset / blockSize && APFSParser::checksumOK(block))
                ++votes[offset - header->oid * blockSize];
        }
        std::vector<std::pair<std::size_t, std::uint64_t>> byVotes;
        byVotes.reserve(votes.size());
        for (const auto& [start, count] : votes)
            byVotes.emplace_back(count, start);
        std::ranges::stable_sort(
            byVotes, std::ranges::greater {}, &std::pair<std::size_t, std::uint64_t>::first);
        for (const auto& vote : byVotes)
            if (starts_.size() < maxStarts)
                starts_.push_back(vote.second);
    }

    bool isKnown(const VolumeSuperblock& superblock) const
    {
        return std::ranges::any_of(search_.volumes(), [&](const Volume* volume) {
            const auto* context = dynamic_cast<const APFSVolumeContext*>(volume->deepContext.get());
            return context != nullptr && context->isOf(superblock.object.oid, superblock.uuid);
        });
    }

    /// The sound superblocks of volumes that are not known, volume by volume.
    std::vector<Versions> findSuperblocks() const
    {
        using Key = std::pair<std::array<std::uint8_t, 16>, std::uint64_t>;
        std::map<Key, Versions> byVolume;
        for (const auto offset : search_.finds().apfsVolumeSuperblocks) {
            const auto block = blockAt(offset);
            const auto stored = ByteView(block).load<VolumeSuperblock>(0);
            if (!stored || !APFSVolumeSuperblock::isSound(block) || isKnown(*stored))
                continue;
            const Key key { stored->uuid, stored->object.oid };
            if (byVolume.size() < maxVolumes || byVolume.contains(key))
                byVolume[key].push_back({ offset, *stored });
        }
        std::vector<Versions> volumes;
        for (auto& [key, versions] : byVolume) {
            std::ranges::stable_sort(versions, std::ranges::greater {},
                [](const FoundSuperblock& found) -> std::uint64_t {
                    return found.stored.object.xid;
                });
            volumes.push_back(std::move(versions));
        }
        return volumes;
    }

    /// Reads the volumes whose object maps are left, and returns the superblocks of the others.
    std::vector<Versions> readBySuperblocks(std::vector<Versions> volumes)
    {
        std::vector<Versions> nameless;
        std::vector<Placed> placed;
        for (auto& versions : volumes) {
            if (auto found = place(versions))
                placed.push_back(std::move(*found));
            else
                nameless.push_back(std::move(versions));
        }
        while (!placed.empty() && !search_.isCancelled())
            readContainer(takeContainer(placed));
        return nameless;
    }

    /// By the newest version whose object map is where it should be.
    std::optional<Placed> place(const Versions& versions) const
    {
        const auto count = std::min(versions.size(), maxVersionsTried);
        for (std::size_t i = 0; i < count; ++i)
            for (const auto start : starts_)
                if (APFSSuperblock::hasObjectMap(
                        source_, start, versions[i].stored.objectMapOID, blockSize))
                    return Placed { start, versions[i].stored, versions };
        return std::nullopt;
    }

    /// Those of one container: none has the number of another one.
    static std::vector<Placed> takeContainer(std::vector<Placed>& placed)
    {
        std::vector<Placed> container;
        const auto start = placed.front().start;
        const auto isOneMore = [&](const Placed& volume) {
            return volume.start == start
                && std::ranges::none_of(container, [&](const Placed& other) {
                       return other.chosen.object.oid == volume.chosen.object.oid;
                   });
        };
        for (auto volume = placed.begin(); volume != placed.end();) {
            if (!isOneMore(*volume)) {
                ++volume;
                continue;
            }
            container.push_back(std::move(*volume));
            volume = placed.erase(volume);
        }
        return container;
    }

    void readContainer(const std::vector<Placed>& container)
    {
        const auto start = container.front().start;
        std::vector<APFSObjectVersion> places;
        for (const auto& volume : container)
            for (const auto& [offset, stored] : volume.versions)
                if (offset >= start && (offset - start) % blockSize == 0)
                    places.push_back({ stored.object.oid, stored.object.xid,
                        (offset - start) / blockSize, false });
        const auto state
            = std::make_shared<APFSContainerState>(source_, start, blockSize, std::move(places));
        VolumeList volumes;
        for (const auto& [where, chosen, versions] : container) {
            search_.reportFound(FileSystemType::apfs, "-volume");
            volumes.push_back(APFSVolumeReader::read(state,
                { .stored = chosen,
                    .oid = chosen.object.oid,
                    .note = "Containerens superblokke er tabt. Volumen er fundet ved sin egen." },
                origin, search_.progress()));
        }
        const auto note = state->chances().judgeWaiting(state->checkpoints().superblock());
        for (auto& volume : volumes) {
            if (note)
                volume->notes.push_back(*note);
            search_.keep(std::move(volume));
        }
    }

    bool hasOwner(std::uint64_t offset, ByteView leaf) const
    {
        return std::ranges::any_of(search_.volumes(), [&](const Volume* volume) {
            const auto* context = dynamic_cast<const APFSVolumeContext*>(volume->deepContext.get());
            return context != nullptr && context->isOn(source_) && context->hasLeaf(offset, leaf);
        });
    }

    std::vector<APFSLooseGroups::Group> groupLeaves()
    {
        APFSLooseGroups groups;
        for (const auto offset : search_.finds().apfsLeafNodes) {
            if (search_.isCancelled())
                return {};
            const auto leaf = blockAt(offset);
            if (!hasOwner(offset, leaf))
                groups.add(offset, leaf);
        }
        return groups.take();
    }

    /// Where the container of these leaves begins; none when nothing says so, and a guess is left.
    std::optional<std::uint64_t> startOf(
        const std::vector<std::uint64_t>& starts, const APFSLooseGroups::Group& group) const
    {
        const auto canBe = [&](std::uint64_t start) {
            return start <= group.leaves.front() && (group.leaves.front() - start) % blockSize == 0;
        };
        const auto found = std::ranges::find_if(starts, canBe);
        return found != starts.end() ? std::optional(*found) : std::nullopt;
    }

    void readGroup(const APFSLooseGroups::Group& group, std::vector<Versions>& nameless)
    {
        if (search_.isCancelled())
            return;
        const auto certain = startOf(starts_, group);
        const auto start = certain ? certain : startOf(search_.likelyStarts(), group);
        if (!start)
            return;
        APFSVolumeSuperblock superblock { .note
            = "Volumens superblok og objektkort er tabt. Filerne er samlet af løse blade af "
              "filtræet, og nogle kan stå i en ældre udgave." };
        superblock.stored.incompatibleFeatures
            = group.isHashed ? IncompatibleFeature::caseInsensitive : 0;
        superblock.stored.flags = unencryptedFlag;
        takeName(superblock, group, nameless);
        search_.reportFound(FileSystemType::apfs, "-volume");
        auto volume
            = APFSVolumeReader::fromLeaves(std::make_shared<APFSContainerState>(source_, *start,
                                               blockSize, std::vector<APFSObjectVersion> {}),
                superblock, group.leaves, origin, search_.progress());
        if (!volume)
            return;
        if (!certain)
            volume->root->forEachDescendant([](FileNode& node, std::size_t) {
                if (!node.isDirectory())
                    judgeFurther(node, Doubt::uncertainPlace);
            });
        search_.keep(std::move(volume));
    }

    /// Gives the group the first superblock that can be its own.
    static void takeName(APFSVolumeSuperblock& superblock, const APFSLooseGroups::Group& group,
        std::vector<Versions>& nameless)
    {
        const auto isPossible = [&](const Versions& versions) {
            const auto& stored = versions.front().stored;
            const bool isEncrypted = (stored.flags & unencryptedFlag) == 0;
            return !isEncrypted && group.highestID < stored.nextObjectID;
        };
        const auto found = std::ranges::find_if(nameless, isPossible);
        if (found == nameless.end())
            return;
        const auto& stored = found->front().stored;
        superblock.stored.name = stored.name;
        superblock.stored.role = stored.role;
        superblock.stored.uuid = stored.uuid;
        superblock.oid = stored.object.oid;
        nameless.erase(found);
    }

    LostVolumeSearch& search_;
    DiskSource& source_;
    std::vector<std::uint64_t> starts_; // of containers, that with the most witnesses first
};

} // namespace

void APFSRebuild::rebuildVolumes(LostVolumeSearch& search) { Rebuilder(search).run(); }
