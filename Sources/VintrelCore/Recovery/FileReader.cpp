#include "VintrelCore/Recovery/FileReader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/LZNT1.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace FileReader {

namespace {

constexpr std::size_t prefixPiece = 4'194'304;

/// NTFS makes units of 16 clusters of at most 4 KiB. A larger one is damage, and would only cost
/// memory.
constexpr std::uint64_t maxUnitBytes = 67'108'864;

std::uint64_t lengthOnSource(const Extent& extent, const DiskSource& source)
{
    return extent.offset && *extent.offset < source.size()
        ? std::min(extent.length, source.size() - *extent.offset)
        : 0;
}

/// Delivers the pieces of one file: keeps count of what is still wanted, of what could not be read
/// and of whether the receiver wants more, and owns the one buffer that they pass through.
class Delivery {
public:
    Delivery(DiskSource& source, std::size_t chunkSize, std::uint64_t total, const Body& body)
        : source_(source)
        , chunkSize_(std::max<std::size_t>(chunkSize, 1))
        , remaining_(total)
        , body_(body)
    {
    }

    bool isDone() const { return remaining_ == 0; }
    std::uint64_t remaining() const { return remaining_; }
    std::uint64_t badBytes() const { return badBytes_; }
    void countBad(std::uint64_t bytes) { badBytes_ += bytes; }

    /// Hands on bytes as far as the file goes.
    void deliver(std::span<const std::uint8_t> bytes)
    {
        const auto count
            = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), remaining_));
        handOn({ .bytes = bytes.first(count), .holeLength = 0 });
    }

    void deliverHole(std::uint64_t length)
    {
        handOn({ .bytes = {}, .holeLength = std::min(length, remaining_) });
    }

    void deliverExtent(const Extent& extent)
    {
        // What lies past the end of the source is a hole like any other.
        const std::uint64_t onSource = lengthOnSource(extent, source_);
        for (std::uint64_t done = 0; done < onSource && !isDone();) {
            buffer_.resize(static_cast<std::size_t>(
                std::min<std::uint64_t>({ onSource - done, chunkSize_, remaining_ })));
            countBad(source_.readReporting(
                *extent.offset + done, std::span(buffer_), ReadMode::thorough));
            done += buffer_.size();
            deliver(buffer_);
        }
        deliverHole(extent.length - onSource);
    }

private:
    void handOn(const Piece& piece)
    {
        if (piece.size() == 0)
            return;
        remaining_ -= piece.size();
        if (!body_(piece))
            remaining_ = 0;
    }

    DiskSource& source_;
    const std::size_t chunkSize_;
    std::uint64_t remaining_;
    std::uint64_t badBytes_ = 0;
    const Body& body_;
    Bytes buffer_;
};

/// Walks the clusters of a compressed stream in file order.
class ClusterCursor {
public:
    explicit ClusterCursor(const std::vector<CompressedRuns::Run>& runs)
        : runs_(runs)
    {
    }

    /// Whether everything from here on is sparse.
    bool isAtEnd() const { return run_ == runs_.size(); }

    /// Steps over as many sparse clusters as the run has from here on in whole units of so many;
    /// how many those are is the result.
    std::uint64_t skipSparse(std::uint64_t unitClusters)
    {
        skipFinishedRuns();
        if (isAtEnd() || runs_[run_].lcn)
            return 0;
        const std::uint64_t count = roundDown(runs_[run_].clusters - used_, unitClusters);
        used_ += count;
        return count;
    }

    /// A stretch of consecutive clusters, at most `limit` of them, and steps behind it. Past the
    /// last run everything is sparse.
    CompressedRuns::Run take(std::uint64_t limit)
    {
        skipFinishedRuns();
        if (isAtEnd())
            return { std::nullopt, limit };
        const auto& run = runs_[run_];
        const std::uint64_t count = std::min(limit, run.clusters - used_);
        const CompressedRuns::Run taken { run.lcn ? std::optional(*run.lcn + used_) : std::nullopt,
            count };
        used_ += count;
        return taken;
    }

private:
    void skipFinishedRuns()
    {
        while (run_ < runs_.size() && used_ == runs_[run_].clusters) {
            ++run_;
            used_ = 0;
        }
    }

    const std::vector<CompressedRuns::Run>& runs_;
    std::size_t run_ = 0;
    std::uint64_t used_ = 0; // clusters of that run that were taken
};

/// The place of a cluster on the source; past its end where the number makes no sense.
std::uint64_t offsetOf(const CompressedRuns& data, std::uint64_t lcn)
{
    constexpr auto limit = std::numeric_limits<std::uint64_t>::max();
    return lcn > (limit - data.volumeOffset) / data.clusterSize
        ? limit
        : data.volumeOffset + lcn * data.clusterSize;
}

void streamCompressed(const CompressedRuns& data, DiskSource& source, Delivery& delivery)
{
    if (data.clusterSize == 0 || data.unitClusters == 0
        || data.unitClusters > maxUnitBytes / data.clusterSize)
        return;
    const auto unitBytes = static_cast<std::size_t>(data.unitClusters * data.clusterSize);
    ClusterCursor cursor(data.runs);
    Bytes unit(unitBytes);
    // What the file never wrote is zeros, whatever its clusters hold.
    const std::uint64_t wanted = delivery.remaining();
    std::uint64_t initialized = std::min(wanted, data.initializedSize.value_or(wanted));
    while (initialized > 0 && !cursor.isAtEnd() && !delivery.isDone()) {
        // A hole of terabytes is one piece and not billions of units.
        const std::uint64_t hole = std::min(initialized,
            saturatingMultiply(cursor.skipSparse(data.unitClusters), data.clusterSize));
        if (hole > 0) {
            delivery.deliverHole(hole);
            initialized -= hole;
            continue;
        }
        const std::uint64_t inUnit = std::min<std::uint64_t>(unitBytes, initialized);
        initialized -= inUnit;
        std::size_t stored = 0; // bytes of the unit that have a place on the disk
        for (std::uint64_t clusters = 0; clusters < data.unitClusters;) {
            const auto stretch = cursor.take(data.unitClusters - clusters);
            clusters += stretch.clusters;
            if (!stretch.lcn)
                continue;
            const auto piece = std::span(unit).subspan(
                stored, static_cast<std::size_t>(stretch.clusters * data.clusterSize));
            delivery.countBad(
                source.readReporting(offsetOf(data, *stretch.lcn), piece, ReadMode::thorough));
            stored += piece.size();
        }
        if (stored == 0) {
            delivery.deliverHole(inUnit);
            continue;
        }
        Bytes decompressed;
        if (stored < unitBytes)
            decompressed = lznt1Decompress(
                ByteView(unit).sub(0, static_cast<std::int64_t>(stored)), unitBytes);
        const auto& content = stored < unitBytes ? decompressed : unit;
        delivery.deliver(std::span(content).first(static_cast<std::size_t>(inUnit)));
    }
    delivery.deliverHole(delivery.remaining());
}

/// Reads bytes of a packed content, which lies in extents or, where there are none, is kept.
class PackedReader {
public:
    PackedReader(const Bytes& bytes, const ExtentList& extents, DiskSource& source)
        : bytes_(bytes)
        , extents_(extents)
        , source_(source)
    {
        std::uint64_t end = 0;
        ends_.reserve(extents.size());
        for (const auto& extent : extents)
            ends_.push_back(end += extent.length);
    }

    std::uint64_t size() const { return ends_.empty() ? bytes_.size() : ends_.back(); }

    /// Fewer bytes where the content ends, zeros where it cannot be read.
    ReadReport read(std::uint64_t at, std::uint64_t count) const
    {
        ReadReport report;
        if (at >= size())
            return report;
        count = std::min(count, size() - at);
        if (extents_.empty()) {
            const auto part = std::span(bytes_).subspan(
                static_cast<std::size_t>(at), static_cast<std::size_t>(count));
            report.data.assign(part.begin(), part.end());
            return report;
        }
        report.data.resize(static_cast<std::size_t>(count));
        std::span<std::uint8_t> into(report.data);
        auto index = static_cast<std::size_t>(std::ranges::upper_bound(ends_, at) - ends_.begin());
        for (; !into.empty(); ++index) {
            const auto& extent = extents_[index];
            const std::uint64_t within = extent.length - (ends_[index] - at);
            const auto part = into.first(static_cast<std::size_t>(
                std::min<std::uint64_t>(extent.length - within, into.size())));
            if (extent.offset)
                report.badBytes
                    += source_.readReporting(*extent.offset + within, part, ReadMode::thorough);
            at += part.size();
            into = into.subspan(part.size());
        }
        return report;
    }

private:
    const Bytes& bytes_;
    const ExtentList& extents_;
    DiskSource& source_;
    std::vector<std::uint64_t> ends_; ///< of the extents, in bytes of the content
};

/// Hands on what was unpacked. What could not be is zeros, and counts as unreadable.
void deliverUnpacked(std::optional<Bytes> content, std::uint64_t size, Delivery& delivery)
{
    if (content) {
        delivery.deliver(*content);
        return;
    }
    delivery.countBad(std::min(size, delivery.remaining()));
    delivery.deliverHole(size);
}

void streamDecmpfs(const DecmpfsContent& data, DiskSource& source, Delivery& delivery)
{
    const auto& header = data.header;
    if (!header.isInFork) {
        // The attribute is a part of a node, and was never made for more than this.
        if (header.size <= Decmpfs::blockSize)
            deliverUnpacked(
                Decmpfs::unpack(header.method, data.bytes, header.size), header.size, delivery);
    } else {
        const PackedReader fork(data.bytes, data.fork, source);
        const auto read
            = [&](std::uint64_t at, std::uint64_t count) { return fork.read(at, count).data; };
        std::uint64_t left = header.size;
        for (const auto& [offset, length] : Decmpfs::blocksOf(header, fork.size(), read)) {
            if (delivery.isDone())
                break;
            const auto size = std::min(left, Decmpfs::blockSize);
            const bool isPossible = length <= 2 * Decmpfs::blockSize;
            deliverUnpacked(isPossible ? Decmpfs::unpack(header.method, read(offset, length), size)
                                       : std::nullopt,
                size, delivery);
            left -= size;
        }
    }
    deliverUnpacked(std::nullopt, delivery.remaining(), delivery);
}

/// A chunk of which some cannot be read is wrong as a whole.
void streamWOF(const WOFContent& data, DiskSource& source, Delivery& delivery)
{
    const PackedReader stream(data.bytes, data.extents, source);
    const auto chunks = WOF::chunksOf(data.method, data.size, stream.size(),
        [&](std::uint64_t at, std::uint64_t count) { return stream.read(at, count).data; });
    std::uint64_t left = data.size;
    for (const auto& [offset, length] : chunks) {
        if (delivery.isDone())
            break;
        const auto size = std::min(left, WOF::chunkSize(data.method));
        const auto packed = stream.read(offset, length);
        const bool isWhole = packed.badBytes == 0 && packed.data.size() == length && length > 0;
        deliverUnpacked(
            isWhole ? WOF::unpack(data.method, packed.data, size) : std::nullopt, size, delivery);
        left -= size;
    }
    deliverUnpacked(std::nullopt, delivery.remaining(), delivery);
}

} // namespace

std::uint64_t stream(const Content& content, DiskSource& source, std::size_t chunkSize,
    std::optional<std::uint64_t> limit, const Body& body)
{
    const std::uint64_t total = std::min(limit.value_or(content.size), content.size);
    Delivery delivery(source, chunkSize, total, body);
    if (const auto* bytes = std::get_if<Bytes>(&content.data)) {
        delivery.deliver(*bytes);
    } else if (const auto* extents = std::get_if<ExtentList>(&content.data)) {
        for (const auto& extent : *extents)
            delivery.deliverExtent(extent);
        delivery.deliverHole(delivery.remaining());
    } else if (const auto* compressed = contentAs<CompressedRuns>(content.data)) {
        streamCompressed(*compressed, source, delivery);
    } else if (const auto* packed = contentAs<DecmpfsContent>(content.data)) {
        streamDecmpfs(*packed, source, delivery);
    } else if (const auto* packedByWindows = contentAs<WOFContent>(content.data)) {
        streamWOF(*packedByWindows, source, delivery);
    }
    return delivery.badBytes();
}

std::uint64_t streamedLength(const Content& content)
{
    if (std::holds_alternative<NoData>(content.data))
        return 0;
    const auto* const bytes = std::get_if<Bytes>(&content.data);
    return bytes != nullptr ? std::min<std::uint64_t>(bytes->size(), content.size) : content.size;
}

std::uint64_t storedLength(const Content& content, const DiskSource& source)
{
    const std::uint64_t length = streamedLength(content);
    std::uint64_t stored = 0;
    if (const auto* extents = std::get_if<ExtentList>(&content.data)) {
        for (const auto& extent : *extents)
            stored += std::min(lengthOnSource(extent, source), length - stored);
    } else if (const auto* compressed = contentAs<CompressedRuns>(content.data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn) // unpacked it is more
                stored += std::min(
                    saturatingMultiply(run.clusters, compressed->clusterSize), length - stored);
    } else {
        stored = length;
    }
    return stored;
}

Bytes readPrefix(const FileNode& node, DiskSource& source, std::size_t max)
{
    Bytes prefix;
    stream(node, source, std::min(max, prefixPiece), max, [&](const Piece& piece) {
        prefix.insert(prefix.end(), piece.bytes.begin(), piece.bytes.end());
        prefix.resize(prefix.size()
            + static_cast<std::size_t>(piece.holeLength)); // no more than what is left of max
        return prefix.size() < max;
    });
    return prefix;
}

} // namespace FileReader
