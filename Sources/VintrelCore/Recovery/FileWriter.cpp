#include "VintrelCore/Recovery/FileWriter.h"

#include "VintrelCore/Foundation/FileIO.h"
#include "VintrelCore/Model/FileNode.h"

#include <CVintrel/Platform.h>

#include <chrono>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Bytes from which on a file is flushed by itself.
constexpr std::uint64_t flushedSize = 67'108'864;

/// A hole of so many bytes shows whether it takes room. Larger than what file systems keep beside
/// their blocks, and smaller than what any destination has left.
constexpr off_t holeProbe = 65'536;

std::timespec timespecFrom(Date date)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(date);
    std::timespec time {};
    time.tv_sec = static_cast<std::time_t>(whole.time_since_epoch().count());
    time.tv_nsec = static_cast<long>((date - whole).count());
    return time;
}

/// Not every file system holds every date; a file without its date is still a file.
void setDates(int descriptor, const FileNode& node)
{
    if (node.created)
        CVintrel::setCreationDate(descriptor, timespecFrom(*node.created));
    if (!node.modified)
        return;
    std::timespec times[2] {};
    times[0].tv_nsec = UTIME_OMIT;
    times[1] = timespecFrom(*node.modified);
    ::futimens(descriptor, times);
}

} // namespace

FileWriter::FileWriter(FileDescriptor descriptor)
    : descriptor_(std::move(descriptor))
{
}

bool FileWriter::keepsHoles() const
{
    struct stat status { };
    const bool keepsHoles = ::ftruncate(descriptor_.get(), holeProbe) == 0
        && ::fstat(descriptor_.get(), &status) == 0 && status.st_blocks == 0;
    return ::ftruncate(descriptor_.get(), 0) == 0 && keepsHoles;
}

SystemError FileWriter::write(const FileReader::Piece& piece)
{
    endsInHole_ = piece.holeLength > 0;
    const auto written = FileIO::writeAt(descriptor_.get(), piece.bytes, position_);
    position_ += piece.size();
    return written.error;
}

SystemError FileWriter::finish(const FileNode& node, bool restoreDates)
{
    if (endsInHole_ && ::ftruncate(descriptor_.get(), static_cast<off_t>(position_)) != 0)
        return SystemError::last();
    if (restoreDates)
        setDates(descriptor_.get(), node);
    // A large file takes long to copy; that it is safe is known before it is counted.
    if (position_ >= flushedSize)
        if (const SystemError error(CVintrel::flush(descriptor_.get())); error)
            return error;
    return descriptor_.close();
}
