#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <memory>
#include <span>

/// Memory that every disk can read into without a detour: raw devices ask for whole pages.
class AlignedBuffer {
public:
    static constexpr std::size_t alignment = 4'096;

    explicit AlignedBuffer(std::size_t size)
        : storage_(size + alignment - 1)
    {
        void* start = storage_.data();
        std::size_t room = storage_.size();
        bytes_ = { static_cast<std::uint8_t*>(std::align(alignment, size, start, room)), size };
    }
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;

    std::span<std::uint8_t> bytes() const { return bytes_; }

private:
    Bytes storage_;
    std::span<std::uint8_t> bytes_; // the aligned part of it
};
