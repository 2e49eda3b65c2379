#include "VintrelCore/Recovery/Report.h"

#include "VintrelCore/Foundation/FileIO.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/Destination.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <string_view>

namespace {

/// Enough for the rows of hundreds of files.
constexpr std::size_t reservedBytes = 65'536;

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
    std::string name = "Gendannelsesrapport.csv";
    auto created = destination.createFile(destination.root(), name);
    descriptor_ = std::move(*created);
    reserveRoom(destination);
    rows_ = "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n";
    flush();
}

/// A file without a name keeps the room. It is free again when that is closed or the run killed.
void RecoveryReport::reserveRoom(Destination& destination)
{
    std::string name = "Gendannelsesrapport.plads";
    auto created = destination.createFile(destination.root(), name);
    if (!created)
        return;
    destination.remove(destination.root(), name);
    reserve_ = std::move(*created);
    static_cast<void>(FileIO::write(reserve_.get(), std::string(reservedBytes, '\n')));
}

RecoveryReport::~RecoveryReport() { flush(); }

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
    if (!descriptor_)
        return;
    rows_.append(csv(file.path)).append(";").append(std::to_string(file.node.size)).append(";");
    rows_.append(statusOf(file)).append(";");
    rows_.append(label(file.chance())).append(";").append(std::to_string(file.badBytes));
    rows_.append(";").append(csv(file.note())).append("\n");
    flush();
}

void RecoveryReport::flush()
{
    if (flushTo(descriptor_, rows_) || !reserve_)
        return;
    reserve_.close();
    flushTo(descriptor_, rows_);
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
