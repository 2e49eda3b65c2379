#include "VintrelCore/Recovery/Page.h"

#include "VintrelCore/Foundation/ByteCount.h"
#include "VintrelCore/Foundation/Page/HTML.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/Page/Embedded.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <optional>
#include <string>
#include <vector>

namespace {

constexpr std::string_view decimalSeparator = ",";

constexpr std::string_view tableBeginning
    = "<div class=\"scroll\"><table id=\"files\" class=\"unread\">\n"
      "<thead><tr><th scope=\"col\">Navn</th><th scope=\"col\">Mappe</th>"
      "<th scope=\"col\">Type</th><th scope=\"col\">Størrelse</th><th scope=\"col\">Oprettet</th>"
      "<th scope=\"col\">Ændret</th><th scope=\"col\">Status</th><th scope=\"col\">Chance</th>"
      "<th scope=\"col\">Ulæseligt</th><th scope=\"col\">Bemærkning</th></tr></thead>\n<tbody>\n";

/// How much of a file is there, as the bar shows it.
enum class Wholeness : std::uint8_t { whole, damaged, doubtful };

struct WholenessText {
    std::string_view kind, words;
};

constexpr std::array<WholenessText, 3> wholenessTexts { {
    { "whole", "Hel" },
    { "damaged", "Delvist skadet" },
    { "doubtful", "Tvivlsom" },
} };

Wholeness wholenessOf(const RecoveredFile& file)
{
    const auto chance = file.chance();
    if (chance == Recoverability::poor || chance == Recoverability::unknown)
        return Wholeness::doubtful;
    return chance == Recoverability::partial || file.badBytes > 0 ? Wholeness::damaged
                                                                  : Wholeness::whole;
}

std::string countText(std::uint64_t files)
{
    return std::to_string(files) + (files == 1 ? " fil" : " filer");
}

std::string dateText(const std::optional<Date>& date)
{
    return date ? TimeConversion::localText(*date, "%Y-%m-%d %H:%M") : std::string();
}

std::string cell(std::string_view text) { return "<td>" + HTML::escaped(text) + "</td>"; }

std::string byteCell(std::uint64_t count)
{
    return R"(<td class="number" data-value=")" + std::to_string(count) + "\">"
        + (count == 0 ? "0" : formatBytes(count, decimalSeparator)) + "</td>";
}

/// The name leads to the file where there is one.
std::string nameCell(const RecoveredFile& file, std::string_view name)
{
    if (!file.isCopied)
        return "<td><span>" + HTML::escaped(name) + "</span></td>";
    return "<td><a href=\"" + HTML::relativeURL(file.path) + "\">" + HTML::escaped(name)
        + "</a></td>";
}

std::string rowOf(const RecoveredFile& file)
{
    const std::string_view path = file.path;
    const auto slash = path.rfind('/');
    const bool isBelowFolder = slash != std::string_view::npos;
    const auto name = isBelowFolder ? path.substr(slash + 1) : path;
    const auto& node = file.node;
    return "<tr>" + nameCell(file, name) + cell(isBelowFolder ? path.substr(0, slash) : "")
        + cell(label(categoryOf(name))) + byteCell(node.size) + cell(dateText(node.created))
        + cell(dateText(node.modified)) + cell(label(node.status)) + cell(label(file.chance()))
        + byteCell(file.badBytes) + cell(file.note()) + "</tr>\n";
}

} // namespace

bool RecoveryPage::open(Destination& destination, std::string_view title, std::string_view damage)
{
    file_.create(destination, "Gendannet", ".html");
    if (!file_)
        return false;
    auto text = HTML::opening(title, &pageScript);
    text.append(damage).append(pageControls.text).append(tableBeginning);
    file_.add(text);
    return true;
}

void RecoveryPage::add(const RecoveredFile& file)
{
    if (!file_)
        return;
    auto& sum = sums_[static_cast<std::size_t>(wholenessOf(file))];
    ++sum.files;
    sum.bytes += file.node.size;
    file_.add(rowOf(file));
}

void RecoveryPage::close(bool isStopped)
{
    if (!file_)
        return;
    Sum all;
    for (const auto& sum : sums_)
        all = { all.files + sum.files, all.bytes + sum.bytes };
    std::vector<HTML::StripPiece> pieces;
    pieces.reserve(sums_.size());
    std::string rows;
    for (std::size_t i = 0; i < sums_.size(); ++i) {
        const auto& [kind, words] = wholenessTexts[i];
        pieces.push_back({ kind, words, sums_[i].files });
        const std::string cells[]
            = { countText(sums_[i].files), HTML::percent(sums_[i].files, all.files),
                  formatBytes(sums_[i].bytes, decimalSeparator) };
        rows += HTML::legendRow(kind, words, cells);
    }
    std::string text = "</tbody>\n</table></div>\n<section id=\"summary\">\n<h2>";
    text += countText(all.files) + ", " + formatBytes(all.bytes, decimalSeparator);
    text += "</h2>\n" + HTML::strip(pieces, "Hvor meget af filerne der er helt");
    text += "<table>\n" + rows + "</table>\n";
    if (isStopped)
        text += "<p>Gendannelsen blev stoppet, før alle filer var med.</p>\n";
    file_.add(text + "</section>\n" + HTML::closing());
}
