#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/Console.h"
#include "VintrelCLI/DiskListing.h"
#include "VintrelCLI/Output.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"

#include <algorithm>

namespace {

constexpr std::size_t maxFailureLines = 10;

using Unicode::escaped;

std::string number(std::uint64_t value) { return std::to_string(value); }

class TextOutput : public Output {
public:
    explicit TextOutput(Console& console)
        : console_(console)
    {
    }

    void disks(const std::vector<DiskRecord>& disks) override
    {
        console_.printBlock(describeDisks(disks));
    }

    void source(const DiskSource& source) override
    {
        console_.print(escaped(source.displayName()) + ": " + formatBytes(source.size())
            + ", sektor " + number(source.sectorSize()) + " B");
    }

    void layout(const PartitionLayout& layout) override
    {
        console_.print("Partitionering: " + layout.scheme);
        for (const auto& entry : layout.entries)
            console_.print("  #" + number(static_cast<std::uint64_t>(entry.index)) + " "
                + entry.typeName + " @ " + number(entry.offset) + " " + formatBytes(entry.size)
                + " " + std::string(displayName(entry.detected.value_or(FileSystemType::unknown))));
    }

    void context(const DiskSource&, const PartitionLayout&) override { }

    void note(const std::string& text) override { console_.print("! " + escaped(text)); }

    void sweep(const DeepScanResult& finds) override
    {
        std::string text;
        for (const auto& kind : findCounts(finds))
            text.append(text.empty() ? "Dyb scanning: " : ", ")
                .append(number(kind.count))
                .append(" ")
                .append(kind.words);
        console_.print(text);
    }

    void volume(const Volume& volume) override
    {
        const auto totals = volume.root->totals();
        console_.print("  " + escaped(volume.title()) + ": " + number(totals.files) + " filer, "
            + number(totals.folders) + " mapper, " + number(totals.deleted) + " slettede, "
            + formatBytes(totals.bytes));
        for (const auto& note : volume.notes)
            console_.print("     note: " + escaped(note));
    }

    void tree(const Volume& volume, ListedStreams streams) override
    {
        listTree(
            volume, [&](std::string_view lines) { console_.printBlock(lines); }, streams);
    }

    void summary(const Volume& volume) override
    {
        const auto totals = volume.root->totals();
        console_.print(escaped(volume.title()) + " [" + escaped(volume.origin) + "] @ "
            + number(volume.offset) + ": " + number(totals.files) + " filer, "
            + number(totals.deleted) + " slettede/fundne");
    }

    RecoveryEngine::FileListener recovering(const Volume&) override { return {}; }

    void recovered(const Volume& volume, const RecoveryResult& result) override
    {
        if (result.listed > 0) {
            console_.print(escaped(volume.title()) + ": " + std::to_string(result.listed)
                + " filer valgt, " + formatBytes(result.bytes) + ", intet kopieret → "
                + escaped(result.folder.value_or("-")));
            printPage(result);
            return;
        }
        console_.print(escaped(volume.title()) + ": " + std::to_string(result.recovered)
            + " gendannet, " + std::to_string(result.withErrors) + " med fejl, "
            + std::to_string(result.failed) + " mislykkedes → "
            + escaped(result.folder.value_or("-")));
        for (std::size_t i = 0; i < std::min(result.failures.size(), maxFailureLines); ++i)
            console_.print("   " + escaped(result.failures[i]));
        printPage(result);
    }

    void end(bool) override { }

private:
    void printPage(const RecoveryResult& result)
    {
        if (result.page)
            console_.print("   Side: " + escaped(*result.page));
    }

    Console& console_;
};

} // namespace

std::unique_ptr<Output> makeTextOutput(Console& console)
{
    return std::make_unique<TextOutput>(console);
}
