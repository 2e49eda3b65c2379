#include "VintrelCore/Model/ParentLinks.h"

ParentLinks::ParentLinks(std::vector<Index> parents)
    : parents_(std::move(parents))
    , places_(parents_.size())
{
    enum class State : std::uint8_t { waiting, onPath, placed };
    std::vector<State> states(parents_.size());
    std::vector<Index> path;
    for (Index start = 0; start < parents_.size(); ++start) {
        path.clear();
        Index entry = start;
        Place end = Place::inTree;
        while (true) {
            if (entry == none || entry == system || entry == root) {
                end = entry == none ? Place::orphaned
                    : entry == root ? Place::inTree
                                    : Place::system;
                break;
            }
            if (states[entry] == State::placed) {
                end = places_[entry];
                break;
            }
            if (states[entry] == State::onPath) { // a ring: it is cut here, and this is its top
                parents_[entry] = none;
                end = Place::orphaned;
                break;
            }
            states[entry] = State::onPath;
            path.push_back(entry);
            entry = parents_[entry];
        }
        for (const Index passed : path) {
            states[passed] = State::placed;
            places_[passed] = end;
        }
    }
}
