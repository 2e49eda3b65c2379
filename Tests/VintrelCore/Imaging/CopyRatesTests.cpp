#include "VintrelCore/Imaging/CopyRates.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

TEST(CopyRates, AreThoseOfThisRunAndOfTheLastFiveSeconds)
{
    const CopyRates::Clock::time_point start {};
    CopyRates rates(start, 1'000);
    struct Row {
        std::chrono::milliseconds time;
        std::uint64_t bytes;
        double average, current;
    };
    const Row rows[] = {
        { 400ms, 1'400, 1'000, 0 }, // too short to say anything of now
        { 1s, 2'000, 1'000, 1'000 }, { 5s, 6'000, 1'000, 1'000 },
        { 10s, 6'500, 550, 100 },  // only the last five seconds count
        { 16s, 6'500, 343.75, 0 }, // it stands still
    };
    for (const auto& row : rows) {
        rates.add(start + row.time, row.bytes);
        EXPECT_DOUBLE_EQ(rates.average(), row.average) << row.time.count();
        EXPECT_DOUBLE_EQ(rates.current(), row.current) << row.time.count();
    }
}
