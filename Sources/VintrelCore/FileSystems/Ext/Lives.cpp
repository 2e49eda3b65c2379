#include "VintrelCore/FileSystems/Ext/Lives.h"

#include <optional>

namespace ExtLives {

namespace {

/// Goes through the states of one slot.
class Walk {
public:
    void add(const ExtInode& inode, const ExtSlotState& state)
    {
        if (inode.isAlive())
            addAlive(inode, state);
        else if (inode.hasKind())
            addDead(inode, state);
        else
            end(state.sequence);
    }

    std::vector<ExtLife> take() { return std::move(ended_); }

private:
    void addAlive(const ExtInode& inode, const ExtSlotState& state)
    {
        if (open_ && !isSameFile(open_->inode, inode))
            end(state.sequence);
        if (!open_) {
            open_.emplace();
            open_->born = hasEarlier_ ? state.sequence : 0;
        }
        open_->inode = inode;
        open_->slot.assign(state.slot.span().begin(), state.slot.span().end());
        hasEarlier_ = true;
    }

    void addDead(const ExtInode& inode, const ExtSlotState& state)
    {
        const bool isOfOpen = open_ && isSameFile(open_->inode, inode);
        const bool isOfLast = !open_ && !ended_.empty() && isSameFile(ended_.back().inode, inode);
        const auto since = open_ ? state.sequence : lastEnd_;
        end(state.sequence);
        if (!isOfOpen && !isOfLast) { // began and ended between two states
            ended_.push_back({ .inode = inode,
                .slot = Bytes(state.slot.span().begin(), state.slot.span().end()),
                .born = since,
                .died = state.sequence,
                .isStateDead = true });
            lastEnd_ = state.sequence;
        }
        hasEarlier_ = true;
    }

    void end(ExtSequence sequence)
    {
        if (!open_)
            return;
        open_->died = sequence;
        ended_.push_back(std::move(*open_));
        open_.reset();
        lastEnd_ = sequence;
    }

    std::vector<ExtLife> ended_;
    std::optional<ExtLife> open_;
    ExtSequence lastEnd_ = 0;
    bool hasEarlier_ = false;
};

} // namespace

bool isSameFile(const ExtInode& one, const ExtInode& other)
{
    return one.generation == other.generation && one.kind() == other.kind()
        && (!one.created || !other.created || one.created == other.created);
}

std::vector<ExtLife> ended(
    const ExtGeometry& geometry, std::uint32_t number, std::span<const ExtSlotState> states)
{
    Walk walk;
    for (const auto& state : states)
        walk.add(ExtInode::decode(geometry, number, state.slot), state);
    return walk.take();
}

} // namespace ExtLives
