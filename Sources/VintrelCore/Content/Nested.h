#pragma once

#include "VintrelCore/Content/Content.h"

#include <algorithm>
#include <cstdint>

namespace Content {

/// A file inside another one, for its own checker. Lives no longer than one call.
class NestedFile final : public FileBytes {
public:
    /// `end` is where it must end; `UINT64_MAX` where nothing tells.
    NestedFile(FileBytes& file, std::uint64_t start, std::uint64_t end)
        : file_(file)
        , start_(start)
        , end_(end)
    {
    }
    std::uint64_t size() const override
    {
        const auto end = std::min(end_, file_.size());
        return end - std::min(start_, end);
    }
    bool isWhole() const override { return end_ <= file_.size(); }
    ByteView stretch(std::uint64_t position, std::size_t count) override
    {
        if (position >= size())
            return {};
        return file_.stretch(start_ + position,
            static_cast<std::size_t>(std::min<std::uint64_t>(count, size() - position)));
    }

private:
    FileBytes& file_;
    std::uint64_t start_, end_;
};

} // namespace Content
