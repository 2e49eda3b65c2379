#include "VintrelCore/Imaging/RangeMap.h"

#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Imaging/NewFile.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Status = RangeMap::Status;

struct StatusRow {
    char code; ///< in the mapfile
    int rank;  ///< the higher, the worse; of what falls into one cell of the picture the worst is
               ///< shown
};

constexpr StatusRow statusRows[] = {
    { '?', 1 }, // nonTried
    { '*', 2 }, // nonTrimmed
    { '/', 2 }, // nonScraped
    { '-', 3 }, // bad
    { '+', 0 }, // finished
};
static_assert(std::size(statusRows) == RangeMap::allStatuses.size());

constexpr const StatusRow& rowOf(Status status)
{
    return statusRows[static_cast<std::size_t>(status)];
}

std::optional<Status> statusOf(std::string_view code)
{
    for (const auto status : RangeMap::allStatuses)
        if (code.size() == 1 && code.front() == rowOf(status).code)
            return status;
    return std::nullopt;
}

/// The mapfile of a disk with ten million bad areas is smaller than this.
constexpr std::uint64_t maxMapfileSize = 1'073'741'824;

constexpr std::string_view blanks = " \t\v\f\r";

/// Takes the first run of non-blanks off the front; empty when there is none left.
std::string_view takeField(std::string_view& line)
{
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    const auto field = line.substr(0, line.find_first_of(blanks));
    line.remove_prefix(field.size());
    return field;
}

/// A number of the mapfile: hexadecimal behind "0x", else decimal.
std::optional<std::uint64_t> parseNumber(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    } else if (text.starts_with('+')) {
        text.remove_prefix(1);
    }
    return Text::number(text, base);
}

/// In the mapfile's own form: hexadecimal, of eight digits or more. A map can have millions of
/// them.
void appendNumber(std::string& text, std::uint64_t value)
{
    char number[18] { '0', 'x' };
    const int digits = std::max(8, (static_cast<int>(std::bit_width(value)) + 3) / 4);
    for (int at = digits + 1; at > 1; --at, value >>= 4)
        number[at] = "0123456789ABCDEF"[value & 0xF];
    text.append(number, static_cast<std::size_t>(digits) + 2);
}

std::optional<RangeMap::Block> parseBlock(std::string_view line)
{
    const auto position = parseNumber(takeField(line));
    const auto size = parseNumber(takeField(line));
    const auto status = statusOf(takeField(line));
    return position && size && status ? std::optional(RangeMap::Block { *position, *size, *status })
                                      : std::nullopt;
}

bool isUTF8(std::string_view text)
{
    while (!text.empty()) {
        const auto before = text.size();
        // U+FFFD itself may stand in a text; in place of a broken sequence it takes one byte.
        if (static_cast<signed char>(text.front()) >= 0)
            text.remove_prefix(1);
        else if (Unicode::takeFirst(text) == Unicode::replacement && before - text.size() == 1)
            return false;
    }
    return true;
}

/// The lines of a mapfile that are blocks; none for what is no text.
std::vector<RangeMap::Block> blocksIn(std::string_view text)
{
    std::vector<RangeMap::Block> blocks;
    if (!isUTF8(text))
        return blocks;
    bool isStatusLine = true; // the first line that is no comment, whatever it says
    while (!text.empty()) {
        const auto line = Text::takeLine(text);
        auto rest = line;
        const auto firstField = takeField(rest);
        if (firstField.empty() || firstField.starts_with('#') || std::exchange(isStatusLine, false))
            continue;
        if (const auto block = parseBlock(line))
            blocks.push_back(*block);
    }
    return blocks;
}

/// The text of a mapfile; none when it cannot be read.
std::optional<std::string> readText(const std::string& path)
{
    const FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)); // a pipe is not waited for
    struct stat status { };
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)
        || static_cast<std::uint64_t>(status.st_size) > maxMapfileSize)
        return std::nullopt;
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const auto count
            = ::pread(file.get(), text.data() + done, text.size() - done, static_cast<off_t>(done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    text.resize(done);
    return text;
}

} // namespace

RangeMap::RangeMap(std::uint64_t size)
    : size_(size)
{
    if (size > 0)
        with(Status::nonTried).add(0, size);
}

void RangeMap::set(std::uint64_t position, std::uint64_t length, Status status)
{
    if (length == 0 || position >= size_)
        return;
    const std::uint64_t end = position + std::min(length, size_ - position);
    const CVintrel::MutexLock guard(lock_);
    for (auto& set : sets_)
        set.remove(position, end);
    with(status).add(position, end);
}

std::optional<RangeMap::Block> RangeMap::first(Status status, std::uint64_t from) const
{
    const CVintrel::MutexLock guard(lock_);
    const auto range = with(status).firstEndingBehind(from);
    if (!range)
        return std::nullopt;
    const std::uint64_t start = std::max(range->start, from);
    return Block { start, range->end - start, status };
}

std::uint64_t RangeMap::total(Status status) const
{
    const CVintrel::MutexLock guard(lock_);
    return with(status).total();
}

std::vector<RangeMap::Block> RangeMap::snapshot() const
{
    std::vector<Block> blocks;
    const CVintrel::MutexLock guard(lock_);
    std::size_t count = 0;
    for (const auto& set : sets_)
        count += set.ranges().size();
    blocks.reserve(count);
    for (const auto status : allStatuses) {
        const auto sorted = static_cast<std::ptrdiff_t>(blocks.size());
        for (const auto& [start, end] : with(status).ranges())
            blocks.push_back({ start, end - start, status });
        std::ranges::inplace_merge(blocks, blocks.begin() + sorted, {}, &Block::position);
    }
    return blocks;
}

std::vector<RangeMap::Status> RangeMap::cells(std::size_t count) const
{
    if (count == 0 || size_ == 0)
        return {};
    std::vector<Status> cells(count, Status::finished);
    std::vector<bool> isClaimed(count);
    const double share = static_cast<double>(size_) / static_cast<double>(count);
    const auto cellOf = [&](std::uint64_t position) {
        return std::min(
            static_cast<std::size_t>(std::floor(static_cast<double>(position) / share)), count - 1);
    };
    for (const auto& block : snapshot()) {
        for (std::size_t cell = cellOf(block.position); cell <= cellOf(block.end() - 1); ++cell) {
            if (!isClaimed[cell] || rowOf(block.status).rank > rowOf(cells[cell]).rank)
                cells[cell] = block.status;
            isClaimed[cell] = true;
        }
    }
    return cells;
}

std::string RangeMap::mapfile(std::uint64_t position, int pass) const
{
    const auto blocks = snapshot();
    std::string text = "# Mapfile. Created by Vintrel (GNU ddrescue compatible)\n"
                       "# Command line: vintrel\n"
                       "# current_pos  current_status  current_pass\n";
    text.reserve(text.size() + 32 * (blocks.size() + 3));
    // The status is always the one of copying: other tools resume from the blocks, and this one
    // never reads it.
    appendNumber(text, position);
    text += "     ?               " + std::to_string(pass) + "\n#      pos        size  status\n";
    for (const auto& block : blocks) {
        appendNumber(text, block.position);
        text += "  ";
        appendNumber(text, block.size);
        text += "  ";
        text += rowOf(block.status).code;
        text += '\n';
    }
    return text;
}

std::unique_ptr<RangeMap> RangeMap::parse(std::string_view text, std::uint64_t size)
{
    const auto blocks = blocksIn(text);
    if (blocks.empty())
        return nullptr;
    auto map = std::make_unique<RangeMap>(size);
    for (const auto& block : blocks)
        if (block.status != Status::nonTried)
            map->set(block.position, block.size, block.status);
    return map;
}

SystemError RangeMap::write(const std::string& path, std::uint64_t position, int pass) const
{
    return replaceFile(path, temporaryPath(path), mapfile(position, pass));
}

std::unique_ptr<RangeMap> RangeMap::read(const std::string& path, std::uint64_t size)
{
    const auto text = readText(path);
    return text ? parse(*text, size) : nullptr;
}

std::unique_ptr<RangeMap> RangeMap::readWhole(const std::string& path, std::uint64_t size)
{
    const auto text = readText(path);
    if (!text)
        return nullptr;
    std::uint64_t end = 0;
    for (const auto& block : blocksIn(*text)) {
        if (block.size > size || block.position > size - block.size)
            return nullptr;
        end = std::max(end, block.end());
    }
    return end == size ? parse(*text, size) : nullptr;
}
