#pragma once

#include "VintrelCore/Content/JPEGBits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Content::JPEG {

/// Which coefficients of a component's blocks are not zero by now, a bit for each: a scan that
/// refines others has a bit for every one of them. Copies share what neither has changed since.
class CoefficientMap {
public:
    static constexpr std::uint64_t mostBlocks = 1U << 21; ///< 134 megapixels, or 16 MiB

    std::uint64_t at(std::uint64_t block) const
    {
        const auto index = block / blocksInPart;
        const bool isThere = index < parts_.size() && parts_[index] != nullptr;
        return isThere ? (*parts_[index])[block % blocksInPart] : 0;
    }
    /// `block` is below `mostBlocks`.
    void set(std::uint64_t block, std::uint64_t bits)
    {
        if (bits == at(block))
            return;
        const auto index = static_cast<std::size_t>(block / blocksInPart);
        if (index >= parts_.size())
            parts_.resize(index + 1);
        auto& part = parts_[index];
        if (part == nullptr || part.use_count() > 1)
            part = part == nullptr ? std::make_shared<Part>() : std::make_shared<Part>(*part);
        (*part)[block % blocksInPart] = bits;
    }

private:
    static constexpr std::size_t blocksInPart = 1024;
    using Part = std::array<std::uint64_t, blocksInPart>;

    std::vector<std::shared_ptr<Part>> parts_; ///< none: all zero
};

/// One block of a scan that refines earlier ones (ITU-T T.81, G.1.2.3). Coefficients are counted in
/// the order of the scan.
class Refinement {
public:
    Refinement(BitReader& bits, ByteReader& bytes, std::uint64_t& coefficients)
        : bits_(bits)
        , bytes_(bytes)
        , coefficients_(coefficients)
    {
    }

    /// `blocksToSkip`: of a run of ends of blocks.
    BitState decode(const HuffmanTable& table, int first, int last, std::uint32_t& blocksToSkip)
    {
        int at = first;
        while (blocksToSkip == 0 && at <= last) {
            constexpr int longRun = 15; // of zeros, without a value behind
            const auto symbol = bits_.symbol(bytes_, table);
            const int run = symbol.value >> 4;
            const int size = symbol.value & 15;
            if (symbol.state != BitState::good || size > 1)
                return symbol.state != BitState::good ? symbol.state : BitState::wrong;
            const auto more = bits_.take(bytes_, size == 1 ? 1 : run == longRun ? 0 : run);
            if (more.state != BitState::good)
                return more.state;
            if (size == 0 && run != longRun) {
                blocksToSkip = (1U << run) + static_cast<std::uint32_t>(more.value);
                break;
            }
            if (const auto state = pass(at, last, run); state != BitState::good)
                return state;
            if (size == 1 && at > last)
                return BitState::wrong;
            if (size == 1)
                coefficients_ |= std::uint64_t { 1 } << at;
            ++at;
        }
        if (blocksToSkip == 0)
            return BitState::good;
        --blocksToSkip;
        return pass(at, last, last + 1);
    }

private:
    /// Goes over so many zeros, and to the next one; each other coefficient has a bit.
    BitState pass(int& at, int last, int zeros)
    {
        for (; at <= last; ++at) {
            if ((coefficients_ >> at & 1) == 0) {
                if (zeros-- == 0)
                    break;
            } else if (const auto bit = bits_.take(bytes_, 1); bit.state != BitState::good) {
                return bit.state;
            }
        }
        return BitState::good;
    }

    BitReader& bits_;
    ByteReader& bytes_;
    std::uint64_t& coefficients_;
};

} // namespace Content::JPEG
