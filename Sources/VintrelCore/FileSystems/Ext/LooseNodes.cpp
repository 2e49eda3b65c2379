#include "VintrelCore/FileSystems/Ext/LooseNodes.h"

#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/FileSystems/Ext/Directory.h"
#include "VintrelCore/Model/DeepScanResult.h"

#include <algorithm>
#include <map>
#include <optional>
#include <tuple>
#include <vector>

using namespace ExtFormat;

namespace {

constexpr std::int64_t headerSize = sizeof(ExtentHeader);
constexpr std::int64_t entrySize = sizeof(LeafExtent);
constexpr std::int64_t leastBlock = 1024, largestBlock = 65536;

/// Of all nodes of a volume, some 100 MiB of memory. Disks in use have a hundredth of it.
constexpr std::size_t maxEntries = 4'194'304;

/// How many entries a node has room for that takes a whole block.
std::uint16_t capacityOf(std::int64_t blockSize)
{
    return static_cast<std::uint16_t>((blockSize - headerSize) / entrySize);
}

/// A node that belongs to nothing that exists.
struct LooseNode {
    /// What an inner node names, and from which block of the file on.
    struct Child {
        std::uint64_t logical = 0, block = 0;
    };

    std::uint16_t depth = 0;     ///< 0: a leaf
    std::uint32_t seed = 0;      ///< what its checksum begins with; 0 where there is none
    std::vector<ExtRun> runs;    ///< of a leaf, ascending
    std::vector<Child> children; ///< of an inner node, ascending
    bool isFull = false;
    bool isNamed = false; ///< by another node

    std::uint64_t logical() const
    {
        return depth == 0 ? runs.front().logical : children.front().logical;
    }
};

/// Sorts nodes by what they begin with; of several states of a leaf the longest comes first.
auto orderOf(const LooseNode& node)
{
    const auto end = node.depth == 0 ? node.runs.back().end() : 0;
    return std::tuple(node.logical(), node.depth, ~end);
}

/// Whether a file has the blocks of a run where that says.
bool hasRun(const ExtMapping& mapping, const ExtRun& run)
{
    const auto next = std::ranges::upper_bound(mapping.runs, run.logical, {}, &ExtRun::logical);
    if (next == mapping.runs.begin())
        return false;
    const auto& have = *std::prev(next);
    return run.end() <= have.end() && run.physical - have.physical == run.logical - have.logical;
}

class Search {
public:
    Search(const ExtListed& listed, ExtContext& context)
        : context_(context)
        , geometry_(context.geometry())
        , listed_(listed)
    {
    }

    void add(std::uint64_t block);
    void findFiles(ExtLooseFiles& files);

private:
    using Nodes = std::map<std::uint64_t, LooseNode>; // by their blocks
    using Tops = std::vector<std::uint64_t>;          // nodes of one file that no other names

    std::optional<LooseNode> decode(ByteView block) const;
    bool readRuns(ByteView block, std::uint16_t count, LooseNode& node) const;
    bool readChildren(ByteView block, std::uint16_t count, LooseNode& node) const;
    LooseNode* childOf(const LooseNode& parent, const LooseNode::Child& child);
    void nameChildren();
    std::map<std::uint64_t, Tops> topsOfFiles() const;
    void append(ExtMapping& mapping, const LooseNode& top) const;
    ExtMapping mappingOf(const Tops& tops) const;
    bool isListed(const ExtMapping& mapping) const;
    bool isFolder(const ExtMapping& mapping) const;

    ExtContext& context_;
    const ExtGeometry& geometry_;
    const ExtListed& listed_;
    Nodes nodes_;
    std::size_t entriesLeft_ = maxEntries;
};

bool Search::readRuns(ByteView block, std::uint16_t count, LooseNode& node) const
{
    for (std::uint16_t index = 0; index < count; ++index) {
        const auto run
            = runOf(block.load<LeafExtent>(headerSize + index * entrySize).value_or(LeafExtent {}));
        const bool isPossible = run.count > 0 && geometry_.isBlock(run.physical)
            && run.count <= geometry_.blockCount - run.physical
            && (node.runs.empty() || run.logical >= node.runs.back().end());
        if (!isPossible)
            return false;
        node.runs.push_back(run);
    }
    return true;
}

bool Search::readChildren(ByteView block, std::uint16_t count, LooseNode& node) const
{
    for (std::uint16_t index = 0; index < count; ++index) {
        const auto entry
            = block.load<ExtentIndex>(headerSize + index * entrySize).value_or(ExtentIndex {});
        const LooseNode::Child child { entry.block, blockOf(entry) };
        const bool isPossible = geometry_.isBlock(child.block)
            && (node.children.empty() || child.logical > node.children.back().logical);
        if (!isPossible)
            return false;
        node.children.push_back(child);
    }
    return true;
}

std::optional<LooseNode> Search::decode(ByteView block) const
{
    const auto header = block.load<ExtentHeader>(0).value_or(ExtentHeader {});
    const auto capacity = capacityOf(geometry_.blockSize);
    if (header.magic != extentMagic || header.capacity != capacity || header.entries == 0
        || header.entries > capacity || header.depth >= maxExtentDepth
        || header.entries > entriesLeft_)
        return std::nullopt;
    LooseNode node;
    node.depth = header.depth;
    node.isFull = header.entries == capacity;
    if (geometry_.hasChecksums()) {
        const auto tail = headerSize + capacity * entrySize;
        node.seed = ExtChecksums::rewind32c(block.u32le(tail), block.sub(0, tail));
    }
    const bool isPossible = node.depth == 0 ? readRuns(block, header.entries, node)
                                            : readChildren(block, header.entries, node);
    return isPossible ? std::optional(node) : std::nullopt;
}

void Search::add(std::uint64_t block)
{
    auto node = decode(context_.blocks().read(block));
    if (!node)
        return;
    entriesLeft_ -= node->runs.size() + node->children.size();
    nodes_.emplace(block, std::move(*node));
}

/// The node that another one names; none where it is not there any more.
LooseNode* Search::childOf(const LooseNode& parent, const LooseNode::Child& child)
{
    const auto found = nodes_.find(child.block);
    const bool isIt = found != nodes_.end() && found->second.depth + 1 == parent.depth
        && found->second.seed == parent.seed && found->second.logical() >= child.logical;
    return isIt ? &found->second : nullptr;
}

/// A node belongs to the first one that names it; what names nothing that is there is taken out.
void Search::nameChildren()
{
    for (std::uint16_t depth = 1; depth < maxExtentDepth; ++depth)
        for (auto& entry : nodes_) {
            auto& node = entry.second;
            if (node.depth != depth)
                continue;
            std::erase_if(node.children, [&](const LooseNode::Child& child) {
                auto* const below = childOf(node, child);
                const bool isFree = below != nullptr && !below->isNamed;
                if (isFree)
                    below->isNamed = true;
                return !isFree;
            });
        }
    std::erase_if(nodes_,
        [](const auto& entry) { return entry.second.depth > 0 && entry.second.children.empty(); });
}

/// The nodes of each file, in the order of its blocks.
std::map<std::uint64_t, Search::Tops> Search::topsOfFiles() const
{
    std::map<std::uint64_t, Tops> files;
    for (const auto& [block, node] : nodes_)
        if (!node.isNamed)
            files[geometry_.hasChecksums() ? std::uint64_t { node.seed } : block].push_back(block);
    for (auto& [key, tops] : files)
        std::ranges::stable_sort(
            tops, {}, [&](std::uint64_t block) { return orderOf(nodes_.at(block)); });
    return files;
}

/// Adds what a node and those below it say.
void Search::append(ExtMapping& mapping, const LooseNode& top) const
{
    std::vector<const LooseNode*> open { &top };
    while (!open.empty()) {
        const auto& next = *open.back();
        open.pop_back();
        const auto end = mapping.runs.empty() ? 0 : mapping.runs.back().end();
        const bool isKnown = std::ranges::all_of(
            next.runs, [&](const ExtRun& run) { return hasRun(mapping, run); });
        if (next.depth == 0 && isKnown) // an older state of another
            continue;
        if (next.depth == 0 && next.logical() != end)
            mapping.isWhole = false;
        for (const auto& run : next.runs)
            if (mapping.runs.empty() || run.logical >= mapping.runs.back().end())
                mapping.runs.push_back(run);
        for (auto child = next.children.rbegin(); child != next.children.rend(); ++child)
            if (const auto found = nodes_.find(child->block); found != nodes_.end())
                open.push_back(&found->second);
    }
}

/// Empty where the beginning is lost. Nothing says of a full node whether another one followed.
ExtMapping Search::mappingOf(const Tops& tops) const
{
    ExtMapping mapping;
    if (nodes_.at(tops.front()).logical() != 0)
        return mapping;
    for (const auto block : tops)
        append(mapping, nodes_.at(block));
    mapping.isWhole = mapping.isWhole && !nodes_.at(tops.back()).isFull;
    while (!mapping.runs.empty() && !mapping.runs.back().isWritten) // kept for what never came
        mapping.runs.pop_back();
    return mapping;
}

bool Search::isListed(const ExtMapping& mapping) const
{
    const auto& first = mapping.runs.front();
    const auto& last = mapping.runs.back();
    return first.logical == 0
        && listed_.has(geometry_.offsetOf(first.physical), last.logical * geometry_.blockSize,
            geometry_.offsetOf(last.physical));
}

bool Search::isFolder(const ExtMapping& mapping) const
{
    return ExtDirectory::selfIn(context_.blocks().read(mapping.runs.front().physical)) != 0;
}

void Search::findFiles(ExtLooseFiles& files)
{
    nameChildren();
    for (const auto& [key, tops] : topsOfFiles()) {
        const auto mapping = mappingOf(tops);
        if (!mapping.runs.empty() && !isListed(mapping) && !isFolder(mapping))
            files.add(tops.front(), mapping, ExtLooseFiles::Beginning::known,
                context_.fileWith(nodes_.at(tops.front()).seed));
    }
}

} // namespace

namespace ExtLooseNodes {

bool looksLikeNode(ByteView sector)
{
    const auto header = sector.load<ExtentHeader>(0).value_or(ExtentHeader {});
    const bool isNode = header.magic == extentMagic && header.entries > 0
        && header.entries <= header.capacity && header.depth < maxExtentDepth;
    for (auto size = leastBlock; isNode && size <= largestBlock; size *= 2)
        if (header.capacity == capacityOf(size))
            return true;
    return false;
}

void add(
    ExtContext& context, const ExtListed& listed, const DeepScanResult& finds, ExtLooseFiles& files)
{
    Search search(listed, context);
    for (const auto block : freeBlocksAt(context, finds.extNodes))
        search.add(block);
    search.findFiles(files);
}

} // namespace ExtLooseNodes
