#include "VintrelCLI/TreeListing.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"

#include <ctime>
#include <ostream>

namespace {

/// A listing can have millions of lines; they leave in blocks of this many bytes.
constexpr std::size_t blockSize = 65'536;

/// "2026-10-03 14:22:10", in local time.
void appendDate(std::string& text, Date date)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(
            std::chrono::floor<std::chrono::seconds>(date)));
    std::tm local {};
    char buffer[32];
    if (localtime_r(&seconds, &local) != nullptr)
        text.append(buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local));
}

void appendNode(std::string& text, const FileNode& node, std::size_t depth)
{
    text.append(2 * depth, ' ').append(Unicode::escaped(node.name));
    if (node.isDirectory())
        text += '/';
    else
        text.append("  ").append(formatBytes(node.size));
    if (!node.isDirectory() && node.modified) {
        text += "  ";
        appendDate(text, *node.modified);
    }
    if (node.status != EntryStatus::existing)
        text.append("  [")
            .append(label(node.status))
            .append(", ")
            .append(label(node.recoverability))
            .append("]");
    if (node.note)
        text.append("  ").append(Unicode::escaped(*node.note));
    text += '\n';
}

} // namespace

void printTree(const Volume& volume, std::ostream& out)
{
    std::string text = Unicode::escaped(volume.title()) + " [" + Unicode::escaped(volume.origin)
        + "] @ " + std::to_string(volume.offset) + "\n";
    for (const auto& note : volume.notes)
        text.append("     note: ").append(Unicode::escaped(note)).append("\n");
    const auto flush = [&] {
        out.write(text.data(), static_cast<std::streamsize>(text.size())).flush();
        text.clear();
    };
    volume.root->forEachDescendant([&](const FileNode& node, std::size_t depth) {
        appendNode(text, node, depth);
        if (text.size() >= blockSize)
            flush();
    });
    flush();
}
