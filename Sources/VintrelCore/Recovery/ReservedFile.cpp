#include "VintrelCore/Recovery/ReservedFile.h"

#include "VintrelCore/Foundation/FileIO.h"
#include "VintrelCore/Recovery/Destination.h"

namespace {

/// Enough for the rows of hundreds of files.
constexpr std::size_t reservedBytes = 65'536;

} // namespace

void ReservedFile::create(
    Destination& destination, std::string_view stem, std::string_view extension)
{
    std::string name = std::string(stem) + std::string(extension);
    auto created = destination.createFile(destination.root(), name);
    if (!created)
        return;
    descriptor_ = std::move(*created);
    // A file without a name keeps the room. It is free again when that is closed or the run killed.
    name = std::string(stem) + ".plads";
    auto reserve = destination.createFile(destination.root(), name);
    if (!reserve)
        return;
    destination.remove(destination.root(), name);
    reserve_ = std::move(*reserve);
    static_cast<void>(FileIO::write(reserve_.get(), std::string(reservedBytes, '\n')));
}

void ReservedFile::add(std::string_view text)
{
    if (!descriptor_)
        return;
    pending_ += text;
    flush();
}

void ReservedFile::flush()
{
    const auto write = [this] {
        pending_.erase(0, FileIO::write(descriptor_.get(), pending_).count);
        return pending_.empty();
    };
    if (!descriptor_ || write() || !reserve_)
        return;
    reserve_.close();
    write();
}
