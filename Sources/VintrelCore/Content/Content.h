#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

/// What the content of a file says of its own pieces. A file that lies in pieces is put together by
/// following its content through one piece, and on through what may be the next.
namespace Content {

/// The bytes of a file as far as they are put together. It grows at its end, and what lies before
/// the end never changes while a checker reads it. Used by one thread.
class FileBytes {
public:
    FileBytes() = default;
    FileBytes(const FileBytes&) = delete;
    FileBytes& operator=(const FileBytes&) = delete;
    virtual ~FileBytes() = default;

    /// The bytes that can be read by now.
    virtual std::uint64_t size() const = 0;
    /// Whether the file ends there, so that nothing will follow.
    virtual bool isWhole() const = 0;
    /// At most `count` bytes from `position` on, at least one of them unless `position` lies at or
    /// past the end. Valid until the next call.
    virtual ByteView stretch(std::uint64_t position, std::size_t count) = 0;
    /// The same file with an end that was found before anything led to it; what lies between cannot
    /// be read there. Null where no end is known. Lives as long as this.
    virtual FileBytes* withEnd() { return nullptr; }
};

/// By what a file shows that all of its bytes are its own, the weakest first.
enum class Proof : std::uint8_t {
    none,
    chain,    ///< lengths lead from one part to the next, up to the end
    decoded,  ///< all of it was decoded, and wrong bytes could hardly have been
    checksum, ///< checksums cover every byte of the content
};

/// How far a checker has come with a file. Positions are bytes from the file's first one.
struct Finding {
    std::uint64_t checked = 0; ///< where the checker stands: everything before it was followed
    /// No break lies before this byte: what was read later vouches for all that comes before it.
    /// Never falls, and never exceeds `checked`.
    std::uint64_t firm = 0;
    /// Where the content contradicts itself. A byte in [firm, brokenAt] is the first wrong one.
    /// Once there is one the checker reads no further.
    std::optional<std::uint64_t> brokenAt;
    std::optional<std::uint64_t> length; ///< of the whole file, once its end was reached
    Proof proof = Proof::none;           ///< of the whole file; none before its end
    /// Whether the bytes around `checked` are packed, so that text or zeros there are another's.
    bool isPacked = false;
    bool lacksBeginning = false; ///< whether it refers to bytes in front of its first one
    /// Smaller is smoother: how little what was decoded last fits to what came before it, where a
    /// format can tell (the step between rows of a picture). Only compared between two copies of
    /// one checker that read equally far.
    double roughness = 0;
    /// The same over all that was decoded, to judge a roughness by. 0 where the format cannot tell.
    double usualRoughness = 0;

    bool isBroken() const { return brokenAt.has_value(); }
    bool isComplete() const { return length.has_value() && !brokenAt; }
};

/// Follows one file through its content. Knows only what it has read, holds memory that does not
/// grow with the file beyond a named bound, and can be copied at any byte, so that many
/// continuations can be tried from one place. Used by one thread.
class Checker {
public:
    Checker() = default;
    Checker& operator=(const Checker&) = delete;
    virtual ~Checker() = default;

    /// A checker that stands where this one does, with all that it knows.
    virtual std::unique_ptr<Checker> copy() const = 0;
    /// Goes on to the end of `file`, to the file's own end or to a contradiction, whichever comes
    /// first. `file` holds the same bytes as before, and perhaps more behind them. A part that is
    /// not there in full waits for the next call, unless `file` is whole: then it is a
    /// contradiction.
    virtual void advance(FileBytes& file) = 0;
    virtual const Finding& finding() const = 0;

protected:
    Checker(const Checker&) = default;
};

/// A checker for a file with this extension (lower case, without a dot) from its first byte on;
/// none for kinds that nothing here can follow.
std::unique_ptr<Checker> checkerFor(std::string_view extension);

} // namespace Content
