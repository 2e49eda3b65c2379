#pragma once

#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>

/// One reader for each format of programs. They are not carved: each only tells whether a program
/// begins at the candidate's place whose tables refer to nothing beyond the source.
namespace Formats {

/// How long it is, in bytes, by its header and tables; none where no program begins.
using ProgramSize = std::optional<std::uint64_t>;

ProgramSize elf(const Candidate& candidate);
ProgramSize portableExecutable(const Candidate& candidate);
ProgramSize machO(const Candidate& candidate);
ProgramSize universalMachO(const Candidate& candidate);
ProgramSize dex(const Candidate& candidate);
ProgramSize javaClass(const Candidate& candidate);

/// Whether the first bytes are a program's; costs next to nothing where they are not.
bool mayBeProgram(ByteView head);
/// The program of any of these formats that begins with these bytes.
ProgramSize program(const Candidate& candidate, ByteView head);

/// Grows with all that tables refer to, and says whether that lies on the source.
class ProgramExtent {
public:
    explicit ProgramExtent(const Candidate& candidate)
        : candidate_(candidate)
    {
    }

    void add(std::uint64_t offset, std::uint64_t length)
    {
        isSound_ &= offset <= candidate_.file.size() && length <= candidate_.file.size() - offset;
        end_ = isSound_ && length > 0 ? std::max(end_, offset + length) : end_;
    }
    ProgramSize size() const
    {
        return isSound_ && !candidate_.file.isExhausted() ? ProgramSize(end_) : std::nullopt;
    }

private:
    const Candidate& candidate_;
    bool isSound_ = true;
    std::uint64_t end_ = 0;
};

} // namespace Formats
