#include "VintrelCore/Recovery/Report.h"

#include "VintrelCore/Foundation/FileIO.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/Destination.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <string_view>

namespace {

/// Writes what is not written yet, and keeps what cannot be. False when that is something.
bool flushTo(const FileDescriptor& descriptor, std::string& text)
{
    if (descriptor)
        text.erase(0, FileIO::write(descriptor.get(), text).count);
    return text.empty();
}

/// Disks that are told what is free (TRIM) give zeros for it.
constexpr std::string_view emptiedNote
    = "Alt indhold er nul – disken har sandsynligvis selv tømt pladsen";

std::string_view statusOf(const RecoveredFile& file)
{
    if (!file.isCopied)
        return "Ikke kopieret";
    return file.badBytes == 0 ? "OK" : "Ulæselige sektorer";
}

std::string csv(const std::string& field)
{
    if (field.find_first_of(";\"\n\r") == std::string::npos)
        return field;
    std::string quoted = "\"";
    for (const char character : field) {
        if (character == '"')
            quoted += '"';
        quoted += character;
    }
    return quoted += '"';
}

} // namespace

RecoveryReport::RecoveryReport(Destination& destination, bool isWanted)
{
    if (!isWanted)
        return;
    file_.create(destination, "Gendannelsesrapport", ".csv");
    file_.add("Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n");
}

Recoverability RecoveredFile::chance() const
{
    return isEmptied ? Recoverability::poor : node.recoverability;
}

std::string RecoveredFile::note() const
{
    auto text = node.note.value_or(std::string());
    if (isEmptied)
        text.append(text.empty() ? "" : "; ").append(emptiedNote);
    return text;
}

void RecoveryReport::add(const RecoveredFile& file)
{
    if (!file_)
        return;
    std::string row = csv(file.path);
    row.append(";").append(std::to_string(file.node.size)).append(";").append(statusOf(file));
    row.append(";").append(label(file.chance())).append(";");
    row.append(std::to_string(file.badBytes)).append(";").append(csv(file.note())).append("\n");
    file_.add(row);
}

FailureList::FailureList(Destination& destination, bool isWanted, std::size_t shown)
    : destination_(destination)
    , isWanted_(isWanted)
    , shown_(shown)
{
}

FailureList::~FailureList()
{
    if (count_ > shown_)
        flushTo(descriptor_, lines_);
}

void FailureList::add(std::string_view line)
{
    if (!isWanted_)
        return;
    lines_.append(Unicode::escaped(line)).append("\n");
    if (++count_ <= shown_)
        return;
    if (!descriptor_) {
        std::string name = "Fejl.txt";
        auto created = destination_.createFile(destination_.root(), name);
        descriptor_ = std::move(*created);
    }
    flushTo(descriptor_, lines_);
}
