#pragma once

#include "VintrelCore/Content/Content.h"

#include <algorithm>

/// Bytes of which more and more can be read, some of them at once.
class GrowingFile final : public Content::FileBytes {
public:
    explicit GrowingFile(const Bytes& bytes)
        : bytes_(bytes)
    {
    }
    void grow(std::size_t count) { size_ = std::min(size_ + count, bytes_.size()); }
    void end() { isWhole_ = true; }
    std::uint64_t size() const override { return size_; }
    bool isWhole() const override { return isWhole_; }
    ByteView stretch(std::uint64_t position, std::size_t count) override
    {
        constexpr std::uint64_t grain = 1000; // a stretch ends here, as at the end of a buffer
        if (position >= size_)
            return {};
        const auto end = std::min<std::uint64_t>((position / grain + 1) * grain, size_);
        return ByteView(bytes_).sub(static_cast<std::int64_t>(position),
            static_cast<std::int64_t>(std::min<std::uint64_t>(count, end - position)));
    }

private:
    const Bytes& bytes_;
    std::size_t size_ = 0;
    bool isWhole_ = false;
};
