#include "VintrelCore/FileSystems/Ext/LooseFiles.h"

#include "VintrelCore/FileSystems/Ext/Chances.h"

#include <algorithm>
#include <optional>

using namespace ExtFormat;

namespace {

/// Where the byte `position` of a file lies; none in a hole or behind its end.
std::optional<std::uint64_t> placeOf(const ExtentList& extents, std::uint64_t position)
{
    for (const auto& [offset, length] : extents) {
        if (position < length)
            return offset ? std::optional(*offset + position) : std::nullopt;
        position -= length;
    }
    return std::nullopt;
}

} // namespace

std::vector<std::uint64_t> freeBlocksAt(
    ExtContext& context, const std::vector<std::uint64_t>& places)
{
    const auto& geometry = context.geometry();
    std::vector<std::uint64_t> blocks;
    for (auto place = std::ranges::lower_bound(places, geometry.base);
         place != places.end() && *place - geometry.base < geometry.volumeSize(); ++place) {
        const auto block = (*place - geometry.base) / geometry.blockSize;
        if ((*place - geometry.base) % geometry.blockSize == 0 && geometry.isBlock(block)
            && !context.allocation().isInUse(block))
            blocks.push_back(block);
    }
    return blocks;
}

void ExtListed::add(const Volume& volume, std::uint64_t blockSize)
{
    for (const auto* file : volume.root->allFiles()) {
        const auto* const extents = extentsOf(file->data);
        if (extents == nullptr)
            continue;
        if (const auto place = placeOf(*extents, directBlocks * blockSize))
            behindDirect_.insert(*place);
        if (const auto start = placeOf(*extents, 0))
            starts_.emplace(*start, extents);
        if (file->status == EntryStatus::existing || file->recoverability != Recoverability::good)
            continue;
        for (const auto& [offset, length] : *extents)
            if (offset)
                deleted_.add(*offset, *offset + length);
    }
}

bool ExtListed::has(std::uint64_t start, std::uint64_t position, std::uint64_t place) const
{
    const auto [first, last] = starts_.equal_range(start);
    return std::any_of(first, last, [&](const auto& listed) {
        const std::uint64_t count = listed.second->size();
        if (count > piecesLeft_)
            return true;
        piecesLeft_ -= count;
        return placeOf(*listed.second, position) == place;
    });
}

ExtLooseFiles::ExtLooseFiles(ExtContext& context, const ExtListed& listed)
    : context_(context)
    , listed_(listed)
    , content_(context)
    , recognition_(context)
{
}

void ExtLooseFiles::add(
    std::uint64_t block, const ExtMapping& mapping, Beginning beginning, const FileNode* file)
{
    ExtEntry entry { .kind = fileMode, .died = ExtLife::now - 1, .diedAtLatest = ExtLife::now - 1 };
    entry.node = FileNode::makeFile(file != nullptr ? file->name : "blok-" + std::to_string(block),
        0, EntryStatus::deleted, Recoverability::good);
    auto& node = *entry.node;
    content_.takeRuns(node, mapping);
    const auto extension = mapping.isWhole ? recognition_.recognise(node) : std::string();
    if (!extension.empty()) {
        node.name += file == nullptr ? "." + extension : "";
    } else {
        // A number alone in a block may be anything: only content makes it a list.
        const auto least = (ExtListed::directBlocks + 1) * context_.geometry().blockSize;
        if (beginning == Beginning::guessed && node.size <= least)
            return;
        if (beginning == Beginning::guessed)
            entry.doubts.add(Doubt::guessedBeginning);
        entry.doubts.add(Doubt::unknownSize);
    }
    if (!mapping.isWhole)
        entry.doubts.add(Doubt::lostBlocks);
    for (const auto& [offset, length] : *extentsOf(node.data))
        if (offset && listed_.isOfDeleted(*offset, *offset + length))
            entry.doubts.add(Doubt::contestedByDeleted);
    files_.entries.push_back(std::move(entry));
}

std::unique_ptr<FileNode> ExtLooseFiles::takeFolder()
{
    if (files_.entries.empty())
        return nullptr;
    ExtChances::judge(context_, files_);
    auto folder = FileNode::makeFolder("$Filer fra bloklister", EntryStatus::orphaned);
    for (auto& entry : files_.entries)
        folder->add(std::move(entry.node));
    folder->sortChildren();
    return folder;
}
