#include "VintrelCore/Imaging/DamagePicture.h"

#include "VintrelCore/Foundation/ByteCount.h"
#include "VintrelCore/Foundation/Page/HTML.h"
#include "VintrelCore/Imaging/NewFile.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <algorithm>
#include <vector>

namespace DamagePicture {

namespace {

using Status = RangeMap::Status;

/// The strip has a cell for each unit of its width.
constexpr std::uint64_t maxCells = 1'000;
/// More rows are read by nobody, and a badly damaged disk has millions.
constexpr std::size_t maxListedRanges = 2'000;
constexpr std::string_view decimalSeparator = ",";

struct StatusText {
    std::string_view kind, words;
};

constexpr StatusText statusTexts[] = {
    { "untried", "Ikke prøvet endnu" },
    { "untrimmed", "Fejlede i en stor læsning, skal prøves igen" },
    { "unscraped", "Kanterne er fundet, resten skal prøves igen" },
    { "bad", "Ulæselig" },
    { "finished", "Kopieret" },
};
static_assert(std::size(statusTexts) == RangeMap::allStatuses.size());

constexpr const StatusText& textOf(Status status)
{
    return statusTexts[static_cast<std::size_t>(status)];
}

std::string strip(const RangeMap& map)
{
    const auto cells = map.cells(static_cast<std::size_t>(std::min(map.size(), maxCells)));
    std::vector<HTML::StripPiece> pieces;
    for (auto cell = cells.begin(); cell != cells.end();) {
        const auto end
            = std::find_if(cell, cells.end(), [&](Status next) { return next != *cell; });
        pieces.push_back(
            { textOf(*cell).kind, textOf(*cell).words, static_cast<std::uint64_t>(end - cell) });
        cell = end;
    }
    return HTML::strip(pieces, "Disken fra begyndelse til slutning");
}

std::string legend(const RangeMap& map, const std::vector<RangeMap::Block>& blocks)
{
    std::string table = "<table>\n";
    for (const auto status : { Status::finished, Status::bad, Status::nonTried, Status::nonTrimmed,
             Status::nonScraped }) {
        const auto total = map.total(status);
        const auto ranges = std::ranges::count(blocks, status, &RangeMap::Block::status);
        const std::string cells[]
            = { formatBytes(total, decimalSeparator), HTML::percent(total, map.size()),
                  std::to_string(ranges) + (ranges == 1 ? " område" : " områder") };
        table += HTML::legendRow(textOf(status).kind, textOf(status).words, cells);
    }
    return table + "</table>\n";
}

void appendRow(std::string& table, const RangeMap::Block& block)
{
    table += "<tr>";
    for (const auto value : { block.position, block.end(), block.size })
        table.append("<td class=\"number\">").append(std::to_string(value)).append("</td>");
    table.append("<td>").append(textOf(block.status).words).append("</td></tr>\n");
}

std::string list(const std::vector<RangeMap::Block>& blocks)
{
    std::string table
        = "<details>\n<summary>Alle områder</summary>\n<table id=\"ranges\">\n"
          "<thead><tr><th scope=\"col\">Fra byte</th><th scope=\"col\">Til byte</th>"
          "<th scope=\"col\">Bytes</th><th scope=\"col\">Tilstand</th></tr></thead>\n";
    const auto count = std::min(blocks.size(), maxListedRanges);
    for (std::size_t i = 0; i < count; ++i)
        appendRow(table, blocks[i]);
    table += "</table>\n";
    if (count < blocks.size())
        table += "<p>Og " + std::to_string(blocks.size() - count)
            + " områder mere, som mapfilen fortæller om.</p>\n";
    return table + "</details>\n";
}

} // namespace

std::string section(const RangeMap& map)
{
    const auto blocks = map.snapshot();
    const auto finished = map.total(Status::finished);
    return "<section id=\"damage\">\n<h2>" + formatBytes(finished, decimalSeparator) + " af "
        + formatBytes(map.size(), decimalSeparator) + " er kopieret ("
        + HTML::percent(finished, map.size()) + ")</h2>\n" + strip(map) + legend(map, blocks)
        + list(blocks) + "</section>\n";
}

SystemError writePage(const std::string& path, std::string_view title, const RangeMap& map)
{
    return replaceFile(
        path, path + ".tmp", HTML::opening(title, nullptr) + section(map) + HTML::closing());
}

} // namespace DamagePicture
