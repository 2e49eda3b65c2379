#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>
#include <bitset>
#include <cstddef>

namespace Content {

/// How often two bytes follow each other that never did so before. Text and tables repeat
/// themselves; what comes of unpacking foreign bytes with their code does so less.
class Novelty {
public:
    void add(ByteView bytes)
    {
        for (const auto byte : bytes.span()) {
            const auto pair = std::size_t { previous_ } << 8 | byte;
            const double isNew = known_.test(pair) ? 0 : perThousand;
            known_.set(pair);
            recent_ += (isNew - recent_) / window;
            count_ = std::min(count_ + 1, memory);
            usual_ += (isNew - usual_) / count_;
            previous_ = byte;
        }
    }
    /// What comes next is of another kind, so that it may be new.
    void begin() { recent_ = std::min(recent_, usual_); }

    /// In a thousand of the last bytes.
    double recent() const { return recent_; }
    /// The same over a longer stretch; 0 as long as there is too little to judge by.
    double usual() const { return count_ < leastCount ? 0 : std::max(usual_, leastUsual); }

private:
    static constexpr double perThousand = 1000;
    static constexpr double window = 1024;
    static constexpr double memory = 8192;
    static constexpr double leastCount = 1024;
    static constexpr double leastUsual = 10; ///< new words come up in any text

    std::bitset<65'536> known_;
    std::uint8_t previous_ = 0;
    double count_ = 0;
    double recent_ = 0, usual_ = 0;
};

} // namespace Content
