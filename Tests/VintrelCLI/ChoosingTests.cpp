#include "Tests/VintrelCLI/Card.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Foundation/Wildcard.h"

#include <filesystem>
#include <set>

namespace {

/// The names of all files below a folder.
std::set<std::string> namesBelow(const std::string& folder)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            names.insert(entry.path().filename());
    return names;
}

} // namespace

TEST(Wildcard, MatchesNamesPathsAndWhatLiesBelowFolders)
{
    const struct {
        const char* pattern;
        const char* path;
        bool matches;
    } rows[] = {
        { "*.jpg", "/DCIM/100/IMG_1.JPG", true },
        { "*.jpg", "/DCIM/100/IMG_1.JPG.txt", false },
        { "img_?.*", "/IMG_1.JPG", true },
        { "img_?.*", "/IMG_12.JPG", false },
        { "DCIM", "/Gammelt/DCIM/100/a", true },
        { "DCIM", "/DCIM2/a", false },
        { "/DCIM", "/DCIM/100/a", true },
        { "/DCIM/", "/DCIM/100/a", true },
        { "/DCIM/", "/Gammelt/DCIM/a", false },
        { "DCIM/*.jpg", "/DCIM/a.jpg", true },
        { "DCIM/*.jpg", "/DCIM/100/a.jpg", false },
        { "DCIM/**.jpg", "/DCIM/100/a.jpg", true },
        { "**/100/*", "/DCIM/100/a.jpg", true },
        { "DCIM/*", "/DCIM/100/a.jpg", true }, // by the folder that matches
        { "søen*", "/SØEN.TXT", true },
        { "", "/a", false },
        { "/", "/a", false },
        { "**", "/a/b", true },
    };
    for (const auto& row : rows)
        EXPECT_EQ(Wildcard(row.pattern).matches(row.path), row.matches)
            << row.pattern << " " << row.path;
    // As many stars as it likes: the time stays within both lengths multiplied.
    std::string stars;
    for (int i = 0; i < 200; ++i)
        stars += "a*";
    EXPECT_FALSE(Wildcard(stars + "b").matches(std::string(2'000, 'a')));
}

TEST_F(Card, GivesOnlyWhatIsChosen)
{
    using Names = std::set<std::string>;
    const std::string summer = "Sommer ved søen.jpg", report = "Gendannelsesrapport.csv";
    std::string hostile = "\x1B[2J"; // of the card; it turns the writing direction
    Unicode::append(hostile, 0x202E);
    hostile += "gpj.exe";
    const struct {
        std::vector<std::string> options;
        Names names;
    } rows[] = {
        { { "--only", "*.JPG" }, { "IMG_0002.JPG", "IMG_0010.JPG", summer } },
        { { "--only", "/dcim/img*", "--only", "*.exe" },
            { "IMG_0002.JPG", "IMG_0010.JPG", hostile } },
        { { "--only", "*.jpg", "--deleted" }, { summer } },
        { { "--type", "TXT, .exe" }, { "KNAEKKET.TXT", hostile } },
        { { "--type", "billeder", "--chance", "GOD", "--only", "*2.jpg" }, { "IMG_0002.JPG" } },
        { { "--chance", "ringe,ukendt" }, { "KNAEKKET.TXT" } },
        { { "--volume", "1", "--only", "*10*" }, { "IMG_0010.JPG" } },
    };
    int number = 0;
    for (const auto& row : rows) {
        const auto destination = folder / ("ud" + std::to_string(++number));
        std::vector<std::string> arguments { "recover", path, destination };
        arguments.insert(arguments.end(), row.options.begin(), row.options.end());
        const auto result = runWith(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        auto names = namesBelow(destination);
        EXPECT_EQ(names.erase(report), 1u);
        EXPECT_EQ(names, row.names) << number;
    }
    for (const auto& options : std::vector<std::vector<std::string>> {
             { "--volume", "2" }, { "--only", "findes ikke" }, { "--type", "pdf" } }) {
        std::vector<std::string> arguments { "recover", path, folder / "intet" };
        arguments.insert(arguments.end(), options.begin(), options.end());
        EXPECT_TRUE(runWith(arguments).err.starts_with("Ingen fil passer til det, der er valgt."));
        EXPECT_FALSE(std::filesystem::exists(folder / "intet"));
    }
}

TEST_F(Card, RefusesAChoiceThatItCannotUnderstand)
{
    for (const auto& options :
        std::vector<std::vector<std::string>> { { "--only" }, { "--only", "--deleted" },
            { "--chance", "fin" }, { "--volume", "0" }, { "--volume", "to" } }) {
        std::vector<std::string> arguments { "recover", path, folder / "ud" };
        arguments.insert(arguments.end(), options.begin(), options.end());
        const auto result = runWith(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(result.err.starts_with("Fejl: ")) << result.err;
        EXPECT_FALSE(std::filesystem::exists(folder / "ud"));
    }
}

TEST_F(Card, ListsInAReportWhatWouldBeCopied)
{
    EXPECT_EQ(runWith({ "recover", path, folder / "ud", "--list-only", "--only", "DCIM" }).out,
        "KAMERA (FAT16): 3 filer valgt, 8 KB, intet kopieret → " + (folder / "ud/KAMERA (FAT16)")
            + "\n");
    EXPECT_EQ(namesBelow(folder / "ud"), std::set<std::string> { "Gendannelsesrapport.csv" });
    const auto report = readFile(folder / "ud/KAMERA (FAT16)/Gendannelsesrapport.csv");
    EXPECT_EQ(std::string(report.begin(), report.end()),
        "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n"
        "DCIM/IMG_0002.JPG;3000;Ikke kopieret;God;0;\n"
        "DCIM/IMG_0010.JPG;2000;Ikke kopieret;God;0;\n"
        "DCIM/Sommer ved søen.jpg;3000;Ikke kopieret;God;0;\n");
}
