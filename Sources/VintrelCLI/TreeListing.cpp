#include "VintrelCLI/TreeListing.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"

#include <algorithm>

namespace {

/// A listing can have millions of lines; they leave in blocks of this many bytes.
constexpr std::size_t blockSize = 65'536;

/// What lies deeper is shown at this level: no screen is so wide.
constexpr std::size_t maxIndentedLevel = 64;

void appendNode(std::string& text, const FileNode& node, std::size_t depth)
{
    text.append(2 * std::min(depth, maxIndentedLevel), ' ').append(Unicode::escaped(node.name));
    if (node.isDirectory())
        text += '/';
    else
        text.append("  ").append(formatBytes(node.size));
    if (!node.isDirectory() && node.modified)
        text.append("  ").append(TimeConversion::localText(*node.modified, "%Y-%m-%d %H:%M:%S"));
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

void appendStreams(std::string& text, const FileNode& node, std::size_t depth)
{
    if (!node.attachments)
        return;
    for (const auto& attachment : *node.attachments)
        if (attachment.kind == Attachment::Kind::stream)
            appendNode(text, *makeStreamFile(node, attachment, node.name + ":" + attachment.name),
                depth + 1);
}

} // namespace

void listTree(
    const Volume& volume, const std::function<void(std::string_view)>& write, ListedStreams streams)
{
    std::string text = Unicode::escaped(volume.title()) + " [" + Unicode::escaped(volume.origin)
        + "] @ " + std::to_string(volume.offset) + "\n";
    for (const auto& note : volume.notes)
        text.append("     note: ").append(Unicode::escaped(note)).append("\n");
    const auto flush = [&] {
        write(text);
        text.clear();
    };
    volume.root->forEachDescendant([&](const FileNode& node, std::size_t depth) {
        appendNode(text, node, depth);
        if (streams == ListedStreams::yes)
            appendStreams(text, node, depth);
        if (text.size() >= blockSize)
            flush();
    });
    flush();
}
