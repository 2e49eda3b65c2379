#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <unordered_map>

namespace {

std::string nameOf(const CarvedFile& file)
{
    constexpr std::uint64_t sectorSize = 512;
    // No colons in the time, which some file systems do not take.
    constexpr auto pattern = "%Y-%m-%d %H.%M.%S";
    std::string name = file.date ? TimeConversion::localText(*file.date, pattern) + " f" : "f";
    name += std::to_string(file.offset / sectorSize) + "." + file.ext;
    return name;
}

Recoverability chanceOf(const CarvedFile& file)
{
    if (!file.exact || file.joins == Joins::uncertain || file.remnant != Remnant::none)
        return Recoverability::unknown;
    const bool isPartlyWrong = file.isInterrupted || file.isContradicted || file.isOverruled;
    return isPartlyWrong || file.joins == Joins::chained ? Recoverability::partial
                                                         : Recoverability::good;
}

const char* noteOn(Remnant remnant)
{
    switch (remnant) {
    case Remnant::none:
        break;
    case Remnant::brokenOff:
        return "Kun begyndelsen er fundet; resten af filen mangler";
    case Remnant::unclosed:
        return "Optagelsen blev ikke afsluttet, eller dens slutning mangler";
    case Remnant::thumbnail:
        return "Miniaturebillede fra et foto, der er gået tabt";
    }
    return nullptr;
}

ExtentList extentsOf(const CarvedFile& file)
{
    if (file.pieces.empty())
        return { { .offset = file.offset, .length = file.size } };
    ExtentList extents;
    extents.reserve(file.pieces.size());
    for (const auto& [start, end] : file.pieces)
        extents.push_back({ .offset = start, .length = end - start });
    return extents;
}

void addNotes(FileNode& node, const CarvedFile& file)
{
    if (file.pieces.size() > 1) {
        const auto pieces = "Samlet af " + std::to_string(file.pieces.size()) + " stykker";
        node.addNote(file.joins == Joins::uncertain ? pieces + "; overgangen er usikker" : pieces);
    }
    if (const auto* const note = noteOn(file.remnant))
        node.addNote(note);
    if (!file.exact)
        node.addNote("Størrelsen er anslået");
    if (file.captured)
        node.addNote("Optaget " + TimeConversion::localText(*file.captured, "%Y-%m-%d %H:%M:%S"));
    if (file.isCut)
        node.addNote("Filen fortsætter ud over kildens ende");
    if (file.isContradicted)
        node.addNote("Indholdet modsiger sig selv inde i filen");
    if (file.isOverruled)
        node.addNote("Et filsystem har filen, og har resten af den et andet sted");
    if (file.isInterrupted)
        node.addNote(file.isOpenEnded ? "Filen er afkortet, hvor en anden fil begynder"
                                      : "En anden fil begynder inde i filen");
}

} // namespace

std::unique_ptr<Volume> DeepScanner::carvedVolume(
    DiskSource& source, std::span<const CarvedFile> files)
{
    auto root = FileNode::makeFolder("", EntryStatus::existing);
    std::unordered_map<std::string, FileNode*> folders; // by extension
    for (const auto& file : files) {
        auto& folder = folders[file.ext];
        if (folder == nullptr) {
            auto name = Text::upperCase(file.ext);
            folder = &root->add(FileNode::makeFolder(std::move(name), EntryStatus::carved));
        }
        auto node = FileNode::makeFile(
            nameOf(file), file.size, EntryStatus::carved, chanceOf(file), extentsOf(file));
        node->modified = file.date;
        addNotes(*node, file);
        folder->add(std::move(node));
    }
    root->sortChildren();

    auto volume = std::make_unique<Volume>(FileSystemType::carved, "Filer fundet via signatur", 0,
        source.size(), std::move(root), "Dyb scanning");
    volume->notes.emplace_back(
        "Filerne er fundet ud fra deres indhold. Originale navne og mapper kendes ikke, og "
        "fragmenterede filer kan være ufuldstændige.");
    return volume;
}
