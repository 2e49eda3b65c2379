#include "VintrelCore/Model/ListingBudget.h"

#include <algorithm>

namespace {

/// The shortest entry of all file systems: that of a FAT directory.
constexpr std::uint64_t minEntrySize = 32;

/// A source that is this small, in entries, has no need of a limit.
constexpr std::uint64_t minLimit = 65'536;

} // namespace

ListingBudget::ListingBudget(std::uint64_t sourceSize)
    : limit_(std::max(minLimit, sourceSize / minEntrySize))
{
}

void ListingBudget::count(const Volume& volume)
{
    const auto totals = volume.root->totals();
    listed_ += totals.files + totals.folders;
}
