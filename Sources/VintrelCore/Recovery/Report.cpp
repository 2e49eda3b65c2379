#include "VintrelCore/Recovery/Report.h"

#include "VintrelCore/Foundation/FileIO.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/Destination.h"

namespace {

constexpr std::size_t flushSize = 65'536; // bytes

std::string csv(const std::string& field)
{
    if (field.find_first_of(";\"\n") == std::string::npos)
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
    rows_ = "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n";
}

RecoveryReport::~RecoveryReport() { flush(); }

void RecoveryReport::add(const std::string& path, const FileNode& node, std::uint64_t badBytes)
{
    if (!descriptor_)
        return;
    rows_.append(csv(path)).append(";").append(std::to_string(node.size)).append(";");
    rows_.append(badBytes == 0 ? "OK" : "Ulæselige sektorer").append(";");
    rows_.append(label(node.recoverability)).append(";").append(std::to_string(badBytes));
    rows_.append(";").append(csv(node.note.value_or(std::string()))).append("\n");
    if (rows_.size() >= flushSize)
        flush();
}

void RecoveryReport::flush()
{
    if (descriptor_)
        rows_.erase(0, FileIO::write(descriptor_.get(), rows_).count);
}
