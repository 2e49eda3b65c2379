#include "VintrelCore/Carving/Formats/Programs.h"

#include <cstddef>

// "The Java Virtual Machine Specification", The class File Format: constants, fields, methods and
// attributes one behind the other.

namespace Formats {

namespace {

constexpr std::uint64_t countSize = sizeof(BE16);

/// Walks through one class file.
class ClassWalk {
public:
    explicit ClassWalk(const Candidate& candidate)
        : candidate_(candidate)
    {
    }

    ProgramSize size()
    {
        constexpr std::uint64_t constantsOffset = 8;
        constexpr std::uint64_t flagsAndNames = 6;
        position_ = constantsOffset;
        if (!skipConstants())
            return std::nullopt;
        position_ += flagsAndNames;
        const std::uint64_t interfaces = takeCount();
        position_ += interfaces * sizeof(BE16);
        const bool isWhole = skipMembers() && skipMembers() && skipAttributes();
        return isWhole ? ProgramSize(position_) : std::nullopt;
    }

private:
    bool isInside() const { return candidate_.fits(position_) && !candidate_.file.isExhausted(); }

    unsigned takeCount()
    {
        const auto count = candidate_.file.u16be(position_);
        position_ += countSize;
        return count;
    }

    /// Bytes of a constant behind its tag; 0 for a tag that does not exist. A text says itself.
    std::uint64_t constantSize(std::uint8_t tag)
    {
        constexpr std::array<std::uint8_t, 21> sizes { 0, 0, 0, 4, 4, 8, 8, 2, 2, 4, 4, 4, 4, 0, 0,
            3, 2, 4, 4, 2, 2 };
        constexpr std::uint8_t text = 1;
        if (tag == text)
            return countSize + candidate_.file.u16be(position_ + 1);
        return tag < sizes.size() ? sizes[tag] : 0;
    }

    bool skipConstants()
    {
        constexpr std::uint8_t wideNumber = 5, wideFraction = 6; // count as two
        const auto count = takeCount();
        for (unsigned i = 1; i < count; ++i) {
            const auto tag = candidate_.file.u8(position_);
            const auto size = constantSize(tag);
            if (size == 0 || !isInside())
                return false;
            position_ += 1 + size;
            i += tag == wideNumber || tag == wideFraction ? 1 : 0;
        }
        return count > 1;
    }

    bool skipAttributes()
    {
        const auto count = takeCount();
        for (unsigned i = 0; i < count && isInside(); ++i)
            position_
                += sizeof(BE16) + sizeof(BE32) + candidate_.file.u32be(position_ + sizeof(BE16));
        return isInside();
    }

    bool skipMembers()
    {
        constexpr std::uint64_t flagsNameAndType = 6;
        const auto count = takeCount();
        for (unsigned i = 0; i < count && isInside(); ++i) {
            position_ += flagsNameAndType;
            skipAttributes();
        }
        return isInside();
    }

    const Candidate& candidate_;
    std::uint64_t position_ = 0;
};

} // namespace

ProgramSize javaClass(const Candidate& candidate)
{
    constexpr std::uint64_t versionOffset = 6;
    constexpr std::uint16_t firstVersion = 45, lastVersion = 200;
    const auto version = candidate.file.u16be(versionOffset);
    return version >= firstVersion && version <= lastVersion ? ClassWalk(candidate).size()
                                                             : std::nullopt;
}

} // namespace Formats
