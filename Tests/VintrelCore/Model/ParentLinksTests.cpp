#include "VintrelCore/Model/ParentLinks.h"

#include <gtest/gtest.h>

namespace {

using enum ParentLinks::Place;

/// How many folders lie above an entry.
int levelOf(const ParentLinks& links, ParentLinks::Index entry)
{
    int level = 1;
    for (; links.parentOf(entry) < ParentLinks::system; entry = links.parentOf(entry))
        ++level;
    return level;
}

} // namespace

TEST(ParentLinks, CutsChainsOfFoldersThatAreTooLong)
{
    // Each folder names the one behind it; the last one hangs in the root.
    constexpr ParentLinks::Index count = 1000;
    std::vector<ParentLinks::Index> parents;
    for (ParentLinks::Index i = 1; i < count; ++i)
        parents.push_back(i);
    parents.push_back(ParentLinks::root);
    parents.push_back(
        count - ParentLinks::maxFolderLevel); // a file in the deepest folder that hangs
    const ParentLinks links(parents);
    EXPECT_EQ(levelOf(links, count), 256);
    EXPECT_EQ(links.placeOf(count), inTree);
    EXPECT_EQ(links.placeOf(count - 255), inTree);
    EXPECT_EQ(links.placeOf(count - 256), orphaned);
    EXPECT_EQ(links.parentOf(count - 256), ParentLinks::none);
    for (ParentLinks::Index i = 0; i < count; ++i)
        EXPECT_LE(levelOf(links, i), 255);
}

TEST(ParentLinks, CutsRingsWhereTheyWereEntered)
{
    const ParentLinks links({ 1, 2, 3, 1, 0 }); // 1 → 2 → 3 → 1, with 0 and 4 below
    EXPECT_EQ(links.parentOf(1), ParentLinks::none);
    EXPECT_EQ(levelOf(links, 4), 3);
    for (ParentLinks::Index i = 0; i < 5; ++i)
        EXPECT_EQ(links.placeOf(i), orphaned);
}
