#include "Tests/VintrelCore/Recovery/RecoveryFixture.h"
#include "VintrelCore/Foundation/Page/HTML.h"
#include "VintrelCore/Recovery/Page/Embedded.h"

#include <regex>

namespace {

using Page = Recovery;

RecoveryOptions withPage() { return { .writePage = true }; }

bool holds(const std::string& text, std::string_view part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(HTML, LetsNothingFromADiskBecomeMarkupOrAnotherAddress)
{
    const struct {
        const char* text;
        const char* escaped;
        const char* url;
    } rows[] = {
        { "Sommer/a-1_b~.jpg", "Sommer/a-1_b~.jpg", "./Sommer/a-1_b~.jpg" },
        { "<img src=x onerror=y>", "&lt;img src=x onerror=y&gt;",
            "./%3Cimg%20src%3Dx%20onerror%3Dy%3E" },
        { "\"'&amp;", "&quot;&#39;&amp;amp;", "./%22%27%26amp%3B" },
        { "javascript:a", "javascript:a", "./javascript%3Aa" },
        { "50%#?\\", "50%#?\\", "./50%25%23%3F%5C" },
        { "a\n\x1B\u202Eexe\u202C", R"(a\n\x1B\u202Eexe\u202C)", "./a%0A%1B%E2%80%AEexe%E2%80%AC" },
        { "\xC3<b>", "\uFFFD&lt;b&gt;", "./%C3%3Cb%3E" },
    };
    for (const auto& row : rows) {
        EXPECT_EQ(HTML::escaped(row.text), row.escaped);
        EXPECT_EQ(HTML::relativeURL(row.text), row.url);
    }
}

TEST(HTML, CallsOnlyTheWholeHundredPercent)
{
    const struct {
        std::uint64_t part, whole;
        const char* text;
    } rows[] = {
        { 0, 0, "0,0 %" },
        { 0, 7, "0,0 %" },
        { 1, 3, "33,3 %" },
        { 1, 1'000'000, "under 0,1 %" },
        { 999'999, 1'000'000, "99,9 %" },
        { ~0ULL - 1, ~0ULL, "99,9 %" },
        { 7, 7, "100,0 %" },
    };
    for (const auto& row : rows)
        EXPECT_EQ(HTML::percent(row.part, row.whole), row.text);
}

TEST(HTML, ShowsTheSmallestPieceOfAStripWithinIt)
{
    const HTML::StripPiece pieces[]
        = { { "whole", "", 999'999 }, { "damaged", "", 0 }, { "doubtful", "<", 1 } };
    const auto strip = HTML::strip(pieces, "\"");
    EXPECT_TRUE(holds(strip, R"(aria-label="&quot;"><rect class="whole" x="0.0" width="999.0")"));
    EXPECT_TRUE(holds(strip, R"(<rect class="doubtful" x="999.0" width="0.9" height="40">)"))
        << strip;
    EXPECT_FALSE(holds(strip, "damaged"));
}

TEST_F(Page, HasARowForEveryFileAndTheSumOfAll)
{
    auto& folder = addFolder(*root, "Ferie 2024");
    auto& photo = addFile(folder, "a&b.jpg", bytesOf("12345"), 5, EntryStatus::deleted);
    photo.recoverability = Recoverability::partial;
    photo.note = "<script>alert(1)</script>";
    photo.modified = Date(std::chrono::seconds(86'400 * 365));
    addFile(*root, "Lyd.mp3").recoverability = Recoverability::unknown;
    addFile(*root, "Hel.txt");
    source->addSimulatedBadRange({ 1_MiB, 1_MiB + 512 });
    addFile(*root, "Hul.bin", ExtentList { { 1_MiB, 1'024 } }, 1'024);
    const auto result = recover(withPage());
    ASSERT_EQ(result.page, *result.folder + "/Gendannet.html");
    const auto page = text(*result.page);
    EXPECT_TRUE(holds(page,
        "<tr><td><a href=\"./Ferie%202024/a%26b.jpg\">a&amp;b.jpg</a></td><td>Ferie 2024</td>"
        "<td>Billeder</td><td class=\"number\" data-value=\"5\">5 bytes</td><td></td>"
        "<td>1971-01-01 "))
        << page.substr(page.find("<tbody>"));
    EXPECT_TRUE(holds(page,
        "<td>Slettet</td><td>Delvis</td><td class=\"number\" data-value=\"0\">0</td>"
        "<td>&lt;script&gt;alert(1)&lt;/script&gt;</td></tr>"));
    EXPECT_TRUE(holds(page, "data-value=\"512\">512 bytes</td><td></td></tr>"));
    EXPECT_TRUE(holds(page, "<h2>4 filer, 1 KB</h2>"));
    const char* const sums[] = { "Hel</th><td>1 fil</td><td>25,0 %</td><td>1 byte</td>",
        "Delvist skadet</th><td>2 filer", "Tvivlsom</th><td>1 fil" };
    for (const auto* sum : sums)
        EXPECT_TRUE(holds(page, sum)) << sum;
    EXPECT_FALSE(holds(page, "blev stoppet, før alle filer var med.</p>\n</section>"));
}

TEST_F(Page, NamesTheOnlyStyleAndScriptThatMayRun)
{
    addFile(*root, "a");
    const auto page = text(*recover(withPage()).page);
    EXPECT_TRUE(holds(page, "default-src 'none'"));
    EXPECT_TRUE(holds(page, "script-src '" + std::string(pageScript.hash) + "'"));
    EXPECT_FALSE(holds(page, "unsafe-inline"));
    EXPECT_FALSE(std::regex_search(page, std::regex("https?:")));
    // Either would end the script early, or let a comment swallow what follows.
    for (const auto* part : { "</", "<!--" })
        EXPECT_EQ(pageScript.text.find(part), std::string_view::npos);
}

TEST_F(Page, KeepsItsNameAndIsThereRowByRow)
{
    addFile(*root, "Gendannet.html", bytesOf("<script>"), 8);
    addFile(*root, "b");
    auto options = withPage();
    std::vector<std::string> rows; // the page's last line as each file was done
    options.fileDone = [&](const RecoveredFile&) {
        auto page = text(target / "r/Gendannet.html");
        page.pop_back();
        rows.push_back(page.substr(page.rfind('\n') + 1));
    };
    recover(options);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_TRUE(rows[0].starts_with("<tr><td><a href=\"./Gendannet%20%282%29.html\">")) << rows[0];
    EXPECT_TRUE(rows[1].starts_with("<tr><td><a href=\"./b\">")) << rows[1];
    EXPECT_EQ(text(target / "r/Gendannet (2).html"), "<script>");
}

TEST_F(Page, IsMadeOnlyWhenAskedForAndLeadsOnlyToWhatIsThere)
{
    addFile(*root, "a");
    EXPECT_FALSE(recover().page);
    EXPECT_EQ(filesIn(target / "r"), std::vector<std::string> { "a" });
    auto options = withPage();
    options.onlyReport = true;
    const auto listed = text(*recover(options).page);
    EXPECT_TRUE(holds(listed, "<tr><td><span>a</span></td>"));
    EXPECT_FALSE(holds(listed, "<a href"));
}

TEST_F(Page, SaysThatTheRunWasStopped)
{
    addFile(*root, "a");
    addFile(*root, "b");
    auto options = withPage();
    options.fileDone = [&](const RecoveredFile&) { progress.cancel(); };
    const auto result = recover(options);
    EXPECT_TRUE(result.cancelled);
    const auto page = text(*result.page);
    EXPECT_TRUE(holds(page, "<h2>1 fil, 1 byte</h2>"));
    EXPECT_TRUE(
        holds(page, "<p>Gendannelsen blev stoppet, før alle filer var med.</p>\n</section>"));
}
