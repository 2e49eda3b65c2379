// Hostile names, copied into a folder: each line is a name, and how it begins says what has it.

#include "Tests/Fuzz/Support/Finding.h"
#include "Tests/Support/Exercise.h"
#include "VintrelCore/Foundation/Text.h"

namespace {

constexpr std::size_t mostNames = 64;
constexpr Attachment::Kind attachments[] = { Attachment::Kind::attribute, Attachment::Kind::stream,
    Attachment::Kind::resourceFork, Attachment::Kind::attribute };

/// A byte in front of each name: a file, a folder to go into, the way back, a stream.
void addNode(FileNode*& folder, std::uint8_t kind, std::string name)
{
    const auto status = static_cast<EntryStatus>(kind >> 4 & 3);
    switch (kind & 3) {
    case 0:
        folder = &folder->add(FileNode::makeFolder(std::move(name), status));
        break;
    case 1:
        folder = folder->parent() != nullptr ? folder->parent() : folder;
        break;
    case 2:
        folder->attach({ .kind = attachments[kind >> 2 & 3],
            .name = std::move(name),
            .data = Bytes(40, 'x'),
            .size = 40 });
        break;
    default:
        folder->add(
            FileNode::makeFile(std::move(name), 1, status, Recoverability::good, Bytes { 'x' }));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto takeName = [&] {
        const auto name = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(name.size() + 1, text.size()));
        return std::string(name);
    };
    const Bytes disk(4096);
    const auto source = Exercise::sourceOf(disk);
    auto root = FileNode::makeFolder("", EntryStatus::existing);
    auto* folder = root.get();
    const auto label = takeName();
    for (std::size_t count = 0; count < mostNames && !text.empty(); ++count) {
        const auto kind = static_cast<std::uint8_t>(text.front());
        text.remove_prefix(1);
        addNode(folder, kind, takeName());
    }
    VolumeList volumes;
    volumes.push_back(std::make_unique<Volume>(
        FileSystemType::fat32, label, 0, disk.size(), std::move(root), "prøve"));
    report(Exercise::print(*source, volumes));
    report(Exercise::recover(*source, volumes));
    return 0;
}
