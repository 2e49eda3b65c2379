#include "VintrelCore/Recovery/AppleDouble.h"

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/AppleAttributes.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <limits>
#include <string_view>

namespace {

/// RFC 1740: an entry descriptor.
struct EntryDescriptor {
    BE32 id, offset, length; // 0, 4, 8
};

constexpr std::uint32_t resourceForkID = 2;
constexpr std::uint32_t finderInfoID = 9;

/// The header of RFC 1740, with the two entries that macOS writes, and the Finder information.
struct FileStart {
    BE32 magic { 0x00051607 };   //  0
    BE32 version { 0x00020000 }; //  4
    std::array<char, 16> filler { 'M', 'a', 'c', ' ', 'O', 'S', ' ', 'X', ' ', ' ', ' ', ' ', ' ',
        ' ', ' ', ' ' };                      //  8  version 2 has no use for it; so macOS fills it
    BE16 entryCount { std::uint16_t { 2 } };  // 24
    EntryDescriptor finderInfo, resourceFork; // 26, 38
    std::array<std::uint8_t, 32> information {}; // 50
};
static_assert(sizeof(FileStart) == 82 && offsetof(FileStart, information) == 50);

/// What stands before the descriptors of extended attributes. It is part of the entry of the Finder
/// information; offsets count from the file's start.
struct AttributesHeader {
    std::array<std::uint8_t, 2> padding {};           //  0
    std::array<char, 4> magic { 'A', 'T', 'T', 'R' }; //  2
    BE32 fileID, end;                                 //  6, 10
    BE32 dataStart, dataLength;                       // 14, 18
    std::array<std::uint8_t, 12> reserved {};         // 22
    BE16 flags, count;                                // 34, 36
};
static_assert(sizeof(AttributesHeader) == 38);

/// The name and a zero byte follow, and zeros up to a multiple of four bytes.
struct AttributeDescriptor {
    BE32 offset, length;     // 0, 4
    BE16 flags;              // 8
    std::uint8_t nameLength; // 10  with the zero byte
};
static_assert(sizeof(AttributeDescriptor) == 11);

constexpr std::size_t maxNameLength = 254;
constexpr std::size_t maxAttributes = std::numeric_limits<std::uint16_t>::max();
constexpr std::uint64_t maxFileSize = std::numeric_limits<std::uint32_t>::max();

std::uint64_t descriptorSize(std::string_view name)
{
    return unitsFor(sizeof(AttributeDescriptor) + name.size() + 1, 4) * 4;
}

template <class T> void append(Bytes& bytes, const T& record)
{
    const auto stored = std::bit_cast<std::array<std::uint8_t, sizeof(T)>>(record);
    bytes.insert(bytes.end(), stored.begin(), stored.end());
}

BE32 stored(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

bool isFinderInfo(const Attachment& attachment)
{
    const auto* bytes = std::get_if<Bytes>(&attachment.data);
    return attachment.name == AppleAttributes::finderInfo && bytes != nullptr
        && bytes->size() == sizeof(FileStart::information);
}

bool isForAppleDouble(const Attachment& attachment)
{
    return attachment.kind == Attachment::Kind::resourceFork
        || attachment.kind == Attachment::Kind::attribute;
}

} // namespace

AppleDouble::AppleDouble(const Attachments& attachments)
{
    choose(attachments);
    write();
}

bool AppleDouble::isFor(const Attachments& attachments)
{
    return std::ranges::any_of(attachments, isForAppleDouble);
}

/// Sorts out what goes where, and counts what the file will have of bytes.
void AppleDouble::choose(const Attachments& attachments)
{
    size_ = sizeof(FileStart);
    const auto doubt
        = [&](Recoverability level) { recoverability_ = std::min(recoverability_, level); };
    for (const auto& attachment : attachments) {
        if (!isForAppleDouble(attachment))
            continue;
        doubt(attachment.recoverability);
        if (attachment.kind == Attachment::Kind::resourceFork) {
            fork_ = &attachment;
            continue;
        }
        if (isFinderInfo(attachment)) {
            finderInfo_ = &attachment;
            continue;
        }
        const auto added = descriptorSize(attachment.name)
            + (attributes_.empty() ? sizeof(AttributesHeader) : 0);
        if (attachment.name.size() > maxNameLength || attributes_.size() == maxAttributes
            || attachment.size > maxFileSize || size_ + added + attachment.size > maxFileSize) {
            doubt(Recoverability::partial);
            continue;
        }
        size_ += added + attachment.size;
        attributes_.push_back(&attachment);
    }
    if (fork_ == nullptr)
        return;
    forkSize_ = std::min(fork_->size, maxFileSize - size_);
    if (forkSize_ < fork_->size)
        doubt(Recoverability::partial);
    size_ += forkSize_;
}

void AppleDouble::write()
{
    const auto forkOffset = size_ - forkSize_;
    constexpr auto informationOffset = offsetof(FileStart, information);
    FileStart start;
    start.finderInfo
        = { BE32(finderInfoID), stored(informationOffset), stored(forkOffset - informationOffset) };
    start.resourceFork = { BE32(resourceForkID), stored(forkOffset), stored(forkSize_) };
    if (finderInfo_ != nullptr)
        std::ranges::copy(std::get<Bytes>(finderInfo_->data), start.information.begin());
    Bytes head;
    append(head, start);
    if (!attributes_.empty()) {
        std::uint64_t length = 0;
        for (const auto* attribute : attributes_)
            length += attribute->size;
        std::uint64_t offset = forkOffset - length;
        AttributesHeader header;
        header.end = stored(forkOffset);
        header.dataStart = stored(offset);
        header.dataLength = stored(length);
        header.count = static_cast<std::uint16_t>(attributes_.size());
        append(head, header);
        for (const auto* attribute : attributes_) {
            const auto& name = attribute->name;
            const auto end = head.size() + descriptorSize(name);
            append(head,
                AttributeDescriptor { stored(offset), stored(attribute->size), {},
                    static_cast<std::uint8_t>(name.size() + 1) });
            head.insert(head.end(), name.begin(), name.end());
            head.resize(static_cast<std::size_t>(end));
            offset += attribute->size;
        }
    }
    head_ = std::move(head);
}

std::vector<FileReader::Content> AppleDouble::parts() const
{
    std::vector<FileReader::Content> parts { { head_, std::get<Bytes>(head_).size() } };
    parts.reserve(attributes_.size() + 2);
    for (const auto* attribute : attributes_)
        parts.push_back({ attribute->data, attribute->size });
    if (fork_ != nullptr)
        parts.push_back({ fork_->data, forkSize_ });
    return parts;
}
