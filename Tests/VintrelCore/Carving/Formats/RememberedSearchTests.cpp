#include "Tests/Support/TestSource.h"
#include "VintrelCore/Carving/Formats/RememberedSearch.h"
#include "VintrelCore/Disk/DiskSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace {

constexpr std::uint64_t size = 8_MiB;

std::unique_ptr<DiskSource> sourceWith(const std::vector<std::uint64_t>& marks)
{
    Bytes bytes(size);
    for (const auto mark : marks)
        std::ranges::copy(bytesOf("%%EOF"), bytes.begin() + static_cast<std::ptrdiff_t>(mark));
    return makeSource(bytes);
}

} // namespace

TEST(RememberedSearch, FindsTheSameInWhateverOrderItIsAsked)
{
    const auto source = sourceWith({ 5000, 1_MiB, 3_MiB - 2, 6_MiB });
    const struct {
        std::uint64_t from, limit;
        std::optional<std::uint64_t> match;
    } questions[] = {
        { 2_MiB, 4_MiB, 3_MiB - 2 },
        { 0, size, 5000 },
        { 5001, size, 1_MiB },
        { 1_MiB + 1, 3_MiB - 2, std::nullopt },
        { 1_MiB + 1, 3_MiB - 1, 3_MiB - 2 },
        { 3_MiB, 100 * size, 6_MiB },
        { 6_MiB + 1, size, std::nullopt },
        { 0, 5000, std::nullopt },
        { 4_MiB, size, 6_MiB },
    };
    for (const bool isReversed : { false, true }) {
        RememberedSearch search(*source, nullptr, "%%EOF");
        std::vector order(std::begin(questions), std::end(questions));
        if (isReversed)
            std::ranges::reverse(order);
        for (const auto& [from, limit, match] : order)
            EXPECT_EQ(search.next(from, limit), match) << from << " to " << limit;
    }
}

TEST(RememberedSearch, SearchesNoByteTwice)
{
    const auto source = sourceWith({});
    RememberedSearch search(*source, nullptr, "%%EOF");
    EXPECT_EQ(search.next(3_MiB, 5_MiB), std::nullopt);
    EXPECT_EQ(search.next(0, size), std::nullopt);
    const auto bytesRead = source->bytesRead();
    EXPECT_LT(bytesRead, size + size / 2) << "blocks go beyond the end of a range";
    for (std::uint64_t from = 0; from < size; from += 512_KiB)
        EXPECT_EQ(search.next(from, size), std::nullopt);
    EXPECT_EQ(source->bytesRead(), bytesRead);
}
