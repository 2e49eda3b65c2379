#include "VintrelCore/Model/ParentLinks.h"

namespace {

using Level = std::uint16_t;

constexpr Level waiting = 0;
constexpr Level onPath = std::numeric_limits<Level>::max();
constexpr Level orphansFolderLevel = 1;

/// Of each entry, whether another one names it as its parent.
std::vector<bool> findFolders(const std::vector<ParentLinks::Index>& parents)
{
    std::vector<bool> isFolder(parents.size());
    for (const auto parent : parents)
        if (parent < parents.size())
            isFolder[parent] = true;
    return isFolder;
}

ParentLinks::Place placeBelow(ParentLinks::Index top)
{
    using enum ParentLinks::Place;
    return top == ParentLinks::root ? inTree : top == ParentLinks::system ? system : orphaned;
}

} // namespace

ParentLinks::ParentLinks(std::vector<Index> parents)
    : parents_(std::move(parents))
    , places_(parents_.size())
{
    const auto isFolder = findFolders(parents_);
    std::vector<Level> levels(parents_.size(), waiting);
    const auto place = [&](Index entry) { // whose parent, if it is an entry, is placed already
        const auto parent = parents_[entry];
        const bool isBelowEntry = parent < parents_.size();
        places_[entry] = isBelowEntry ? places_[parent] : placeBelow(parent);
        levels[entry] = isBelowEntry ? levels[parent] : parent == root ? 0 : orphansFolderLevel;
        if (++levels[entry] > maxFolderLevel && isFolder[entry]) {
            levels[entry] = orphansFolderLevel + 1;
            if (places_[entry] != Place::system) {
                parents_[entry] = none;
                places_[entry] = Place::orphaned;
            }
        }
    };
    std::vector<Index> path;
    for (Index start = 0; start < parents_.size(); ++start) {
        path.clear();
        Index entry = start;
        for (; entry < parents_.size() && levels[entry] == waiting; entry = parents_[entry]) {
            levels[entry] = onPath;
            path.push_back(entry);
        }
        if (entry < parents_.size() && levels[entry] == onPath) { // a ring: this is its top now
            parents_[entry] = none;
            place(entry);
        }
        for (auto passed = path.rbegin(); passed != path.rend(); ++passed)
            if (levels[*passed] == onPath)
                place(*passed);
    }
}
