#include "VintrelCore/FileSystems/Ext/FastCommits.h"

#include "VintrelCore/FileSystems/Ext/Checksums.h"

#include <algorithm>
#include <iterator>
#include <utility>

using namespace ExtJournalFormat;

namespace {

/// "Fast Commits": the kinds of changes.
enum class Tag : std::uint16_t {
    addRange = 1,
    removeRange = 2,
    create = 3,
    link = 4,
    unlink = 5,
    inode = 6,
    padding = 7,
    tail = 8,
    head = 9,
};

/// Systems leave them 256 blocks. A small change takes ten times its room in memory.
constexpr std::uint64_t maxBytes = 16'777'216;

constexpr std::int64_t headerSize = 4; ///< of a change: kind and length
constexpr std::int64_t numberSize = sizeof(LE32);

class Reader {
public:
    explicit Reader(const ExtJournal& journal)
        : journal_(journal)
    {
    }

    ExtFastCommits read()
    {
        std::uint64_t bytesRead = 0;
        for (std::uint32_t index = 0; !isAtEnd_ && bytesRead < maxBytes; ++index) {
            const auto block = journal_.fastCommitBlock(index);
            if (block.empty())
                break;
            bytesRead += block.size();
            readBlock(block, index == 0);
        }
        return std::move(whole_);
    }

private:
    void readBlock(ByteView block, bool isFirst)
    {
        const auto size = static_cast<std::int64_t>(block.size());
        for (std::int64_t at = 0; at + headerSize <= size && !isAtEnd_;) {
            const auto tag = static_cast<Tag>(block.u16le(at));
            const std::int64_t length = block.u16le(at + 2);
            const bool isHead = tag == Tag::head && journal_.next() == block.u32le(at + 8);
            if ((isFirst && at == 0 && !isHead) || at + headerSize + length > size) {
                isAtEnd_ = true;
                return;
            }
            if (tag == Tag::tail)
                return endCommit(block.sub(at, headerSize + 2 * numberSize));
            sum_ = ExtChecksums::crc32c(sum_, block.sub(at, headerSize + length));
            if (tag == Tag::padding)
                return;
            take(tag, block.sub(at + headerSize, length));
            at += headerSize + length;
        }
    }

    /// The next commit begins with the next block.
    void endCommit(ByteView tail)
    {
        const auto sum = ExtChecksums::crc32c(sum_, tail.sub(0, headerSize + numberSize));
        isAtEnd_ = tail.u32le(headerSize) != journal_.next()
            || tail.u32le(headerSize + numberSize) != sum;
        if (!isAtEnd_)
            append(std::exchange(pending_, {}));
        sum_ = 0;
    }

    void append(ExtFastCommits&& commit)
    {
        std::ranges::move(commit.inodes, std::back_inserter(whole_.inodes));
        for (const auto& [name, isAdded] : commit.names)
            whole_.names.insert_or_assign(name, isAdded);
        std::ranges::move(commit.runs, std::back_inserter(whole_.runs));
    }

    void take(Tag tag, ByteView value)
    {
        switch (tag) {
        case Tag::create:
        case Tag::link:
        case Tag::unlink:
            takeName(value, tag != Tag::unlink);
            break;
        case Tag::inode:
            takeInode(value);
            break;
        case Tag::addRange:
            takeRange(value);
            break;
        case Tag::removeRange: // the inode has what is left, and the bitmap forgives
        case Tag::head:
            break;
        default: // what comes behind it may depend on it
            isAtEnd_ = true;
        }
    }

    void takeName(ByteView value, bool isAdded)
    {
        const auto name = value.sub(2 * numberSize, static_cast<std::int64_t>(value.size())).span();
        if (!name.empty())
            pending_.names.insert_or_assign(
                ExtFastCommits::Name { value.u32le(0), value.u32le(numberSize),
                    std::string(name.begin(), name.end()) },
                isAdded);
    }

    void takeInode(ByteView value)
    {
        const auto state = value.sub(numberSize, static_cast<std::int64_t>(value.size())).span();
        pending_.inodes.push_back({ value.u32le(0), { state.begin(), state.end() } });
    }

    void takeRange(ByteView value)
    {
        if (const auto extent = value.load<ExtFormat::LeafExtent>(numberSize))
            pending_.runs.push_back(runOf(*extent));
    }

    const ExtJournal& journal_;
    ExtFastCommits whole_, pending_;
    std::uint32_t sum_ = 0;
    bool isAtEnd_ = false;
};

} // namespace

ExtFastCommits ExtFastCommits::read(const ExtJournal& journal) { return Reader(journal).read(); }
