#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Decmpfs.h"
#include "VintrelCore/Foundation/WOF.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

/// A piece of a file, in bytes on the source.
struct Extent {
    std::optional<std::uint64_t>
        offset; ///< none: a hole, or a piece whose place is unknown; reads as zeros
    std::uint64_t length = 0;

    bool operator==(const Extent&) const = default;
};

using ExtentList = std::vector<Extent>;

/// The size of what lies in extents or, where there are none, is these bytes.
inline std::uint64_t bytesIn(const Bytes& bytes, const ExtentList& extents)
{
    std::uint64_t size = extents.empty() ? bytes.size() : 0;
    for (const auto& extent : extents)
        size += extent.length;
    return size;
}

/// Where the clusters of an NTFS-compressed stream lie. A compression unit with fewer physical
/// clusters than it has virtual ones is compressed.
struct CompressedRuns {
    struct Run {
        std::optional<std::uint64_t> lcn; ///< none: sparse
        std::uint64_t clusters = 0;

        bool operator==(const Run&) const = default;
    };

    std::vector<Run> runs;
    std::uint64_t clusterSize = 0;  ///< in bytes
    std::uint64_t unitClusters = 0; ///< clusters in a compression unit
    std::uint64_t volumeOffset = 0; ///< of the volume on the source, in bytes
    std::optional<std::uint64_t>
        initializedSize {}; ///< bytes of the content; those from here on are zeros. None: all

    bool operator==(const CompressedRuns&) const = default;
};

/// Content that macOS compressed, see Decmpfs.h.
struct DecmpfsContent {
    Decmpfs::Header header;
    Bytes bytes;        ///< the packed content or, where that has no extents, the fork
    ExtentList fork {}; ///< the resource fork, up to its size

    /// Of what is packed, in bytes.
    std::uint64_t packedSize() const { return bytesIn(bytes, fork); }

    bool operator==(const DecmpfsContent&) const = default;
};

/// Content that Windows compressed file by file, see WOF.h.
struct WOFContent {
    WOF::Method method {};
    Bytes bytes;            ///< the packed stream, where that has no extents
    ExtentList extents {};  ///< the packed stream, up to its size
    std::uint64_t size = 0; ///< of what is unpacked, in bytes

    /// Of what is packed, in bytes.
    std::uint64_t packedSize() const { return bytesIn(bytes, extents); }

    bool operator==(const WOFContent&) const = default;
};

struct NoData {
    bool operator==(const NoData&) const = default;
};

/// A value on the heap that is copied and compared as the value itself: what few files have takes
/// no room in all of them. One that was moved from holds an empty value.
template <class T> class Boxed {
public:
    Boxed(T value) // what is kept so need not be told where it is given
        : value_(std::make_unique<T>(std::move(value)))
    {
    }
    Boxed(const Boxed& other)
        : Boxed(*other)
    {
    }
    Boxed(Boxed&&) noexcept = default;
    Boxed& operator=(const Boxed& other)
    {
        if (this != &other)
            value_ = std::make_unique<T>(*other);
        return *this;
    }
    Boxed& operator=(Boxed&&) noexcept = default;
    ~Boxed() = default;

    const T& operator*() const
    {
        static const T empty {};
        return value_ ? *value_ : empty;
    }
    T& operator*()
    {
        if (!value_)
            value_ = std::make_unique<T>();
        return *value_;
    }

    bool operator==(const Boxed& other) const { return **this == *other; }

private:
    std::unique_ptr<T> value_;
};

/// Where a file's content lies: nowhere that is known, in these very bytes (content kept inside
/// metadata), in extents in file order, in compressed runs, or as macOS or Windows compressed it.
using FileData = std::variant<NoData, Bytes, ExtentList, Boxed<CompressedRuns>,
    Boxed<DecmpfsContent>, Boxed<WOFContent>>;

/// The content where it is one of the three that are kept in a box, and this one; else none.
template <class T> const T* contentAs(const FileData& data)
{
    const auto* const boxed = std::get_if<Boxed<T>>(&data);
    return boxed != nullptr ? &**boxed : nullptr;
}
template <class T> T* contentAs(FileData& data)
{
    auto* const boxed = std::get_if<Boxed<T>>(&data);
    return boxed != nullptr ? &**boxed : nullptr;
}

/// The extents that hold a file's content, packed or not; none where it has no list of them.
inline const ExtentList* extentsOf(const FileData& data)
{
    if (const auto* packed = contentAs<DecmpfsContent>(data))
        return &packed->fork;
    if (const auto* packed = contentAs<WOFContent>(data))
        return &packed->extents;
    return std::get_if<ExtentList>(&data);
}
