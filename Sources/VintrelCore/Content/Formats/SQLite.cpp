#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"

#include <algorithm>
#include <array>
#include <cstddef>

// "SQLite Database File Format" (sqlite.org), The Database Header and B-tree Pages. The header says
// how many pages there are; pages of trees say where their cells lie, and records how long they
// are.

namespace Content::Formats {

namespace {

constexpr std::uint64_t largestPage = 65'536;
constexpr std::string_view magic { "SQLite format 3\0", 16 };

struct Header {
    std::array<std::uint8_t, 16> magic;   //  0
    BE16 pageSize;                        // 16  1: 65,536
    std::uint8_t writing, reading;        // 18, 19
    std::uint8_t reserved;                // 20  bytes at each page's end
    std::array<std::uint8_t, 3> unused1;  // 21
    BE32 changes;                         // 24
    BE32 pages;                           // 28
    BE32 firstFree;                       // 32
    BE32 freePages;                       // 36
    std::array<std::uint8_t, 52> unused2; // 40
    BE32 validFor;                        // 92  the number of pages is true for as many changes
    BE32 program;                         // 96
};
static_assert(sizeof(Header) == 100 && offsetof(Header, validFor) == 92);

struct PageHeader {
    std::uint8_t type;       // 0
    BE16 firstGap;           // 1
    BE16 cells;              // 3
    BE16 contentStart;       // 5  0: 65,536
    std::uint8_t fragmented; // 7

    enum Type : std::uint8_t { innerIndex = 2, innerTable = 5, leafIndex = 10, leafTable = 13 };
    bool isLeaf() const { return type == leafIndex || type == leafTable; }
    bool isTree() const { return isLeaf() || type == innerIndex || type == innerTable; }
};
static_assert(sizeof(PageHeader) == 8);

/// The number of one to nine bytes at `at`, which moves behind it.
std::uint64_t takeVarint(ByteView bytes, std::int64_t& at)
{
    constexpr int maxLength = 9;
    std::uint64_t value = 0;
    for (int i = 0; i < maxLength; ++i) {
        const auto byte = bytes.u8(at++);
        if (i == maxLength - 1)
            return value << 8 | byte;
        value = value << 7 | (byte & 0x7F);
        if ((byte & 0x80) == 0)
            break;
    }
    return value;
}

/// How many bytes a value of this type takes in a record.
std::uint64_t sizeOfType(std::uint64_t type)
{
    constexpr std::array<std::uint8_t, 12> sizes { 0, 1, 2, 3, 4, 6, 8, 8, 0, 0, 0, 0 };
    return type < sizes.size() ? sizes[static_cast<std::size_t>(type)] : (type - sizes.size()) / 2;
}

/// Whether the values of a record that begins at `at` are together as long as it is. A record whose
/// header is not all in the page is taken for sound.
bool isRecordSound(ByteView page, std::int64_t at, std::uint64_t length)
{
    const auto start = at;
    const auto headerSize = takeVarint(page, at);
    if (headerSize == 0 || headerSize > length || at > static_cast<std::int64_t>(page.size()))
        return false;
    const auto left = page.size() - static_cast<std::size_t>(start);
    if (headerSize > left)
        return true;
    std::uint64_t size = headerSize;
    while (at < start + static_cast<std::int64_t>(headerSize)) {
        size += sizeOfType(takeVarint(page, at));
        if (size > length)
            return false;
    }
    return size == length;
}

class SQLiteChecker final : public Walker<SQLiteChecker> {
public:
    bool step(FileBytes& file)
    {
        if (pageSize_ == 0)
            return readHeader(file);
        if (position() == pageSize_ * pages_) {
            if (isFreeListSound(file))
                endAt(position(), Proof::chain);
            else
                breakAt(position());
            return true;
        }
        return readPage(file);
    }

private:
    bool readHeader(FileBytes& file)
    {
        constexpr std::uint64_t smallest = 512;
        const auto header = load<Header>(file, 0);
        if (!header)
            return false;
        const std::uint64_t size
            = header->pageSize == 1 ? largestPage : std::uint64_t { header->pageSize };
        if (!ByteView(header->magic).matches(magic, 0) || size < smallest
            || (size & (size - 1)) != 0 || header->pages == 0
            || header->changes != header->validFor) {
            breakAt(sizeof(Header) - 1);
            return true;
        }
        pageSize_ = size;
        usable_ = size - header->reserved;
        pages_ = header->pages;
        firstFree_ = header->firstFree;
        freePages_ = header->freePages;
        return true;
    }

    bool readPage(FileBytes& file)
    {
        const auto size = static_cast<std::size_t>(pageSize_);
        const auto page = bytesAt(file, position(), size);
        if (page.size() < size)
            return false;
        const auto start = position();
        const bool isTree = isTreeSound(page);
        // Free pages hold whatever they held before.
        strangePages_ += isTree || isOverflow(page) ? 0 : 1;
        if (strangePages_ > freePages_) {
            breakAt(start + size - 1);
            return true;
        }
        moveTo(start + size);
        // Pages do not say which they are: behind a strange one they may have been moved.
        if (isTree && strangePages_ == 0)
            vouchUpTo(start);
        return true;
    }

    /// Whether the chain of free pages has as many of them as the header says.
    bool isFreeListSound(FileBytes& file) const
    {
        struct Trunk {
            BE32 next, leaves;
        };
        std::uint64_t count = 0, page = firstFree_;
        while (page != 0 && page <= pages_ && count < freePages_) {
            const auto trunk = load<Trunk>(file, (page - 1) * pageSize_).value_or(Trunk {});
            count += 1 + std::uint64_t { trunk.leaves };
            page = trunk.next;
        }
        return page == 0 && count == freePages_;
    }

    /// A page that a record goes on in begins with the number of the next one.
    bool isOverflow(ByteView page) const { return page.u32be(0) <= pages_ && !page.isAllZero(); }

    bool isTreeSound(ByteView page) const
    {
        const std::int64_t start = position() == 0 ? sizeof(Header) : 0;
        const auto header = page.load<PageHeader>(start).value_or(PageHeader {});
        const std::uint64_t content
            = header.contentStart == 0 ? largestPage : std::uint64_t { header.contentStart };
        const std::int64_t cells = start + (header.isLeaf() ? 8 : 12);
        const auto cellsEnd
            = static_cast<std::uint64_t>(cells) + std::uint64_t { 2 } * header.cells;
        if (!header.isTree() || content > usable_ || cellsEnd > content)
            return false;
        for (std::int64_t i = 0; i < header.cells; ++i) {
            const std::uint64_t place = page.u16be(cells + 2 * i);
            if (place < content || place >= usable_
                || !isCellSound(header, page, static_cast<std::int64_t>(place)))
                return false;
        }
        return true;
    }

    bool isCellSound(const PageHeader& header, ByteView page, std::int64_t at) const
    {
        if (!header.isLeaf()) {
            const auto child = page.u32be(at);
            at += sizeof(BE32);
            if (child == 0 || child > pages_)
                return false;
        }
        if (header.type == PageHeader::innerTable)
            return true;
        const auto length = takeVarint(page, at);
        if (header.type == PageHeader::leafTable)
            takeVarint(page, at); // the row's number
        return length > 0 && length <= pageSize_ * pages_ && isRecordSound(page, at, length);
    }

    std::uint64_t pageSize_ = 0; ///< 0 before the header was read
    std::uint64_t usable_ = 0;   ///< of a page
    std::uint64_t pages_ = 0;
    std::uint64_t firstFree_ = 0, freePages_ = 0;
    std::uint64_t strangePages_ = 0; ///< that hold neither a tree nor a record's continuation
};

} // namespace

std::unique_ptr<Checker> sqlite() { return std::make_unique<SQLiteChecker>(); }

} // namespace Content::Formats
