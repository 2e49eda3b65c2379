#pragma once

#include "VintrelCore/Content/Content.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace Content {

/// What checkers share that follow a file part by part. `Self` is the checker itself. Its
/// `bool step(FileBytes&)` follows one part, or as much of one as there is, and returns false when
/// the rest of the part is not there yet. A step that returned true has moved on, or has told the
/// end or a contradiction.
template <class Self> class Walker : public Checker {
public:
    std::unique_ptr<Checker> copy() const final
    {
        return std::make_unique<Self>(static_cast<const Self&>(*this));
    }
    const Finding& finding() const final { return finding_; }
    void advance(FileBytes& file) final
    {
        while (!finding_.brokenAt && !finding_.length) {
            if (static_cast<Self&>(*this).step(file))
                continue;
            if (file.isWhole())
                breakAt(file.size());
            return;
        }
    }

protected:
    Walker() = default;
    Walker(const Walker&) = default;

    std::uint64_t position() const { return finding_.checked; }
    void moveTo(std::uint64_t position) { finding_.checked = position; }
    /// No break lies before this byte. Vouches for nothing behind the place that was reached.
    void vouchUpTo(std::uint64_t position)
    {
        finding_.firm = std::max(finding_.firm, std::min(position, finding_.checked));
    }
    /// The first wrong byte is this one, or one before it.
    void breakAt(std::uint64_t position) { finding_.brokenAt = std::max(position, finding_.firm); }
    void endAt(std::uint64_t length, Proof proof)
    {
        moveTo(length);
        finding_.length = length;
        finding_.proof = proof;
    }
    void missBeginning() { finding_.lacksBeginning = true; }
    void setPacked(bool isPacked) { finding_.isPacked = isPacked; }
    void setRoughness(double roughness, double usual)
    {
        finding_.roughness = roughness;
        finding_.usualRoughness = usual;
    }

private:
    Finding finding_;
};

} // namespace Content
