#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

TEST(PDF, EndsWithItsLastUpdate)
{
    const std::string first = "%PDF-1.4\n1 0 obj\nendobj\n%%EOF\r\n",
                      update = "2 0 obj\nendobj\nxref\n%%EOF";
    EXPECT_EQ(carve(bytesOf(first)), "pdf ~" + std::to_string(first.size()));
    EXPECT_EQ(carve(bytesOf(first + update + "\n")),
        "pdf ~" + std::to_string(first.size() + update.size() + 1));
    EXPECT_EQ(carve(bytesOf(first + std::string(990, ' ') + "%PDF-1.4 1 0 obj %%EOF")),
        "pdf ~" + std::to_string(first.size()))
        << "what follows is another file";
    EXPECT_EQ(carve(bytesOf("%PDF-1.4\n1 0 obj\n")), "-");
}

TEST(PDF, BelievesTheLengthThatALinearisedFileStates)
{
    const std::string head = "%PDF-1.4\n1 0 obj <</Linearized 1/L 300/H[ 1 2]>>\nendobj\n";
    auto linearised = head + std::string(300 - head.size() - 6, ' ') + "%%EOF\n";
    EXPECT_EQ(carve(bytesOf(linearised + "x xref %%EOF")), "pdf 300");
    const std::string update = "9 0 obj\nendobj\nxref\n0 1\nstartxref\n315\n%%EOF";
    EXPECT_EQ(carve(bytesOf(linearised + update)), "pdf ~" + std::to_string(300 + update.size()));
    linearised.replace(294, 5, "     ");
    EXPECT_EQ(carve(bytesOf(linearised)), "pdf ~300")
        << "no file ends there: what follows is not to be hidden";
}
