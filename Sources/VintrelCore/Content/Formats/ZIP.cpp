#include "VintrelCore/Content/Coverage.h"
#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Formats/ZIPRecords.h"
#include "VintrelCore/Content/Novelty.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <algorithm>
#include <cstddef>
#include <optional>

// PKWARE "APPNOTE.TXT - .ZIP File Format Specification" 6.3. Every entry has a checksum over its
// content, and the central directory says all that the entries' own headers say once more.

namespace Content::Formats {

namespace {

using Compression::Inflater;
using namespace ZIPRecords;

class ZIPChecker final : public Walker<ZIPChecker> {
public:
    bool step(FileBytes& file)
    {
        switch (part_) {
        case Part::record:
            return readRecord(file);
        case Part::data:
            return readData(file);
        case Part::descriptor:
            return readDescriptor(file);
        }
        return false;
    }

private:
    enum class Part : std::uint8_t { record, data, descriptor };

    bool readRecord(FileBytes& file)
    {
        const auto signature = load<LE32>(file, position());
        if (!signature)
            return false;
        switch (*signature) {
        case localSignature:
            return readLocal(file);
        case centralSignature:
            return readCentral(file);
        case zip64EndSignature:
            return readZip64End(file);
        case zip64LocatorSignature:
            coverage_.verify(position(), position() + sizeof(Zip64Locator));
            moveTo(position() + sizeof(Zip64Locator));
            return true;
        case endSignature:
            return readEnd(file);
        default:
            breakAt(position() + sizeof(LE32) - 1);
            return true;
        }
    }

    bool readLocal(FileBytes& file)
    {
        const auto header = load<LocalHeader>(file, position());
        if (!header)
            return false;
        const std::uint64_t nameStart = position() + sizeof(LocalHeader);
        const std::uint64_t dataStart = nameStart + header->nameLength + header->extraLength;
        if (!isKnownMethod(header->method) || header->nameLength == 0
            || header->nameLength > maxNameLength || directoryStart_ != 0) {
            breakAt(nameStart - 1);
            return true;
        }
        if (file.size() < dataStart)
            return false;
        const auto name = bytesAt(file, nameStart, header->nameLength);
        const auto extra = bytesAt(file, nameStart + header->nameLength, header->extraLength);
        entry_
            = { position(), header->checksum, header->packedSize, header->size, checksumOf(name) };
        widen(extra, { &entry_.size, &entry_.packedSize });
        times_ += header->time;
        method_ = header->method;
        hasDescriptor_ = (header->flags & hasDescriptor) != 0;
        isChecked_ = (header->flags & isEncrypted) == 0
            && (method_ == deflated || (method_ == stored && !hasDescriptor_));
        if (!isChecked_ && hasDescriptor_ && entry_.packedSize == 0) {
            breakAt(dataStart); // nothing tells where its data ends
            return true;
        }
        coverage_.verify(position(), nameStart + header->nameLength);
        beginData(dataStart);
        return true;
    }

    void beginData(std::uint64_t start)
    {
        moveTo(start);
        dataStart_ = start;
        produced_ = 0;
        crc_ = {};
        inflater_.reset();
        if (isChecked_ && method_ == deflated)
            inflater_.emplace(Inflater::Wrapping::raw);
        novelty_.begin();
        setPacked(inflater_.has_value());
        part_ = Part::data;
    }

    /// The bytes of data that are there, none beyond the entry's end.
    ByteView dataAt(FileBytes& file, std::uint64_t end)
    {
        return file.stretch(position(),
            static_cast<std::size_t>(std::min<std::uint64_t>(readSize, end - position())));
    }

    bool readData(FileBytes& file)
    {
        if (!isChecked_)
            return skipData(file);
        if (method_ == deflated)
            return inflateData(file);
        const auto end = saturatedEnd(dataStart_, entry_.packedSize);
        if (entry_.packedSize != entry_.size) {
            breakAt(position());
            return true;
        }
        if (position() < end) {
            const auto bytes = dataAt(file, end);
            crc_.add(bytes);
            produced_ += bytes.size();
            moveTo(position() + bytes.size());
            return !bytes.empty();
        }
        finishData();
        return true;
    }

    bool skipData(FileBytes& file)
    {
        isAllChecked_ = false;
        const auto end = saturatedEnd(dataStart_, entry_.packedSize);
        if (end > file.size())
            return false;
        moveTo(end);
        ++entries_;
        digests_ += entry_.digest();
        part_ = hasDescriptor_ ? Part::descriptor : Part::record;
        return true;
    }

    bool inflateData(FileBytes& file)
    {
        const auto end = hasDescriptor_ ? UINT64_MAX : saturatedEnd(dataStart_, entry_.packedSize);
        const auto bytes = position() < end ? dataAt(file, end) : ByteView();
        std::array<std::uint8_t, readSize> unpacked;
        const auto progress = inflater_->unpack(bytes.span(), unpacked);
        const ByteView content { std::span(unpacked).first(progress.produced) };
        crc_.add(content);
        novelty_.add(content);
        setRoughness(novelty_.recent(), novelty_.usual());
        produced_ += progress.produced;
        moveTo(position() + progress.consumed);
        const bool isTooLong = !hasDescriptor_ && produced_ > entry_.size;
        const bool isCutShort = progress.state == Inflater::State::open && position() == end
            && progress.produced == 0;
        if (progress.state == Inflater::State::damaged || isTooLong || isCutShort)
            breakAt(position());
        else if (progress.state == Inflater::State::ended)
            finishData();
        return progress.state != Inflater::State::open || progress.consumed > 0
            || progress.produced > 0 || isCutShort;
    }

    static std::uint64_t saturatedEnd(std::uint64_t start, std::uint64_t size)
    {
        return size > UINT64_MAX - start ? UINT64_MAX : start + size;
    }

    void finishData()
    {
        const auto packed = position() - dataStart_;
        if (hasDescriptor_) {
            entry_.checksum = crc_.value();
            entry_.packedSize = packed;
            entry_.size = produced_;
            part_ = Part::descriptor;
            return;
        }
        if (packed != entry_.packedSize || produced_ != entry_.size
            || crc_.value() != entry_.checksum) {
            breakAt(position());
            return;
        }
        finishEntry();
    }

    bool readDescriptor(FileBytes& file)
    {
        const auto bytes = bytesAt(file, position(), Descriptor::maxLength);
        if (bytes.size() < Descriptor::maxLength)
            return false;
        const auto descriptor = Descriptor::matching(bytes, entry_);
        if (descriptor.length == 0) {
            breakAt(position() + Descriptor::maxLength - 1);
            return true;
        }
        moveTo(position() + descriptor.length);
        finishEntry();
        return true;
    }

    void finishEntry()
    {
        inflater_.reset();
        setPacked(false);
        if (isChecked_) {
            coverage_.verify(dataStart_, position());
            ++entries_;
            digests_ += entry_.digest();
        }
        vouchUpTo(position());
        part_ = Part::record;
    }

    bool readCentral(FileBytes& file)
    {
        const auto header = load<CentralHeader>(file, position());
        if (!header)
            return false;
        const std::uint64_t nameStart = position() + sizeof(CentralHeader);
        const std::uint64_t end
            = nameStart + header->nameLength + header->extraLength + header->commentLength;
        if (file.size() < end)
            return false;
        const auto name = bytesAt(file, nameStart, header->nameLength);
        const auto extra = bytesAt(file, nameStart + header->nameLength, header->extraLength);
        Entry entry { header->localOffset, header->checksum, header->packedSize, header->size,
            checksumOf(name) };
        widen(extra, { &entry.size, &entry.packedSize, &entry.offset });
        const auto local = load<LE32>(file, entry.offset);
        if (!local || *local != localSignature || named_ == entries_) {
            breakAt(end - 1);
            return true;
        }
        if (directoryStart_ == 0)
            directoryStart_ = position();
        coverage_.verify(position(), nameStart + header->nameLength);
        ++named_;
        namedDigests_ += entry.digest();
        times_ -= header->time;
        vouchUpTo(position());
        moveTo(end);
        return true;
    }

    bool readZip64End(FileBytes& file)
    {
        const auto record = load<Zip64EndRecord>(file, position());
        if (!record)
            return false;
        const std::uint64_t length = record->length;
        if (length > maxZip64End || record->count != entries_
            || record->directoryOffset != directoryStart_
            || record->directorySize != position() - directoryStart_) {
            breakAt(position() + sizeof(Zip64EndRecord) - 1);
            return true;
        }
        directoryEnd_ = position();
        coverage_.verify(position(), position() + sizeof(Zip64EndRecord));
        moveTo(position() + offsetof(Zip64EndRecord, unused) + length);
        return true;
    }

    bool readEnd(FileBytes& file)
    {
        const auto record = load<EndRecord>(file, position());
        if (!record)
            return false;
        const auto recordEnd = position() + sizeof(EndRecord);
        const auto directoryEnd = directoryEnd_ == 0 ? position() : directoryEnd_;
        if (entries_ == 0 || named_ != entries_ || digests_ != namedDigests_
            || !isOrWide(record->count, entries_, countInZip64)
            || !isOrWide(record->directoryOffset, directoryStart_, inZip64)
            || !isOrWide(record->directorySize, directoryEnd - directoryStart_, inZip64)) {
            breakAt(recordEnd - 1);
            return true;
        }
        const auto length = recordEnd + record->commentLength;
        if (file.size() < length)
            return false;
        coverage_.verify(position(), position() + offsetof(EndRecord, commentLength));
        moveTo(length);
        vouchUpTo(recordEnd);
        endAt(length,
            isAllChecked_ && times_ == 0 && coverage_.isCompleteAt(length) ? Proof::checksum
                                                                           : Proof::chain);
        return true;
    }

    bool isOrWide(std::uint64_t value, std::uint64_t expected, std::uint64_t wide) const
    {
        return value == expected || (value == wide && directoryEnd_ != 0);
    }

    Part part_ = Part::record;
    Entry entry_ {}; ///< that is being followed
    std::uint16_t method_ = 0;
    bool hasDescriptor_ = false;
    bool isChecked_ = false; ///< whether the entry's checksum can be
    std::uint64_t dataStart_ = 0;
    std::uint64_t produced_ = 0;
    CRC32 crc_;
    std::optional<Inflater> inflater_;
    Novelty novelty_; ///< of what was inflated

    std::uint64_t entries_ = 0, digests_ = 0;    ///< of the local headers
    std::uint64_t named_ = 0, namedDigests_ = 0; ///< of the central directory
    std::uint64_t times_ = 0; ///< of the local headers, less those of the central directory
    std::uint64_t directoryStart_ = 0; ///< 0 before it was met
    std::uint64_t directoryEnd_ = 0;   ///< 0 unless a wide end record was met
    bool isAllChecked_ = true;
    Coverage coverage_;
};

} // namespace

std::unique_ptr<Checker> zip() { return std::make_unique<ZIPChecker>(); }

} // namespace Content::Formats
