#include "VintrelCore/Model/LostVolumeSearch.h"

#include "VintrelCore/Model/SourceEnd.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

namespace {

/// So many times over the source may be covered.
constexpr std::uint64_t maxOverlap = 16;

/// A disk without a table, and the first partition of old systems and of those since 2007.
constexpr std::uint64_t usualStarts[] = { 0, 32'256, 1'048'576 };

} // namespace

LostVolumeSearch::LostVolumeSearch(DiskSource& source, std::uint64_t sourceSize,
    const DeepScanResult& finds, const VolumeList& known,
    std::span<const std::uint64_t> partitionStarts, WorkProgress* progress)
    : source_(source)
    , sourceSize_(sourceSize)
    , finds_(finds)
    , known_(known)
    , partitionStarts_(partitionStarts)
    , progress_(progress)
    , budget_(sourceSize)
{
    for (const auto& volume : known_)
        add(*volume);
}

bool LostVolumeSearch::isCancelled() const { return ::isCancelled(progress_); }

std::vector<const Volume*> LostVolumeSearch::volumes() const
{
    std::vector<const Volume*> volumes;
    volumes.reserve(known_.size() + found_.size());
    for (const auto* list : { &known_, &found_ })
        for (const auto& volume : *list)
            volumes.push_back(volume.get());
    return volumes;
}

std::vector<std::uint64_t> LostVolumeSearch::likelyStarts() const
{
    std::vector<std::uint64_t> starts;
    const auto add = [&](std::uint64_t start) {
        if (start < sourceSize_ && std::ranges::count(starts, start) == 0)
            starts.push_back(start);
    };
    std::ranges::for_each(partitionStarts_, add);
    for (const auto* volume : volumes())
        add(volume->offset);
    std::ranges::for_each(usualStarts, add);
    return starts;
}

bool LostVolumeSearch::hasVolume(FileSystemType type, std::uint64_t start) const
{
    const auto [first, end] = typesByStart_.equal_range(start);
    return std::any_of(first, end, [&](const auto& volume) {
        return volume.second == type || (isFAT(volume.second) && isFAT(type));
    });
}

bool LostVolumeSearch::keep(std::unique_ptr<Volume> volume)
{
    if (!volume)
        return false;
    noteSourceEnd(*volume, sourceSize_);
    limitSizes(*volume, sourceSize_);
    if (volume->offset < sourceSize_)
        bytesCovered_ += std::min(volume->size, sourceSize_ - volume->offset);
    add(*volume);
    found_.push_back(std::move(volume));
    return true;
}

void LostVolumeSearch::add(const Volume& volume)
{
    budget_.count(volume);
    typesByStart_.emplace(volume.offset, volume.type);
}

bool LostVolumeSearch::hasRoom() const
{
    return bytesCovered_ / maxOverlap < sourceSize_ && budget_.hasRoom();
}

void LostVolumeSearch::reportFound(FileSystemType type, std::string_view what) const
{
    report(progress_, 0,
        "Undersøger fundet " + std::string(displayName(type)) + std::string(what) + " …");
}
