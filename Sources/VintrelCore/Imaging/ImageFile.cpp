#include "VintrelCore/Imaging/ImageFile.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/CallingUser.h"
#include "VintrelCore/Foundation/FileIO.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <CVintrel/Platform.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Why a file with this status cannot be the image, if it cannot.
SystemError refusalOf(const struct stat& status, const DiskSource& source)
{
    if (source.isFile(status))
        return SystemError(EBUSY);
    if (S_ISDIR(status.st_mode))
        return SystemError(EISDIR);
    return S_ISREG(status.st_mode) ? SystemError() : SystemError(ENOTSUP);
}

} // namespace

SystemResult<ImageFile> ImageFile::open(
    const std::string& imagePath, const std::string& mapPath, const DiskSource& source)
{
    struct stat status { };
    // Before anything is opened for writing: a mapfile by the source's name would take its place.
    for (const auto& path : { mapPath, RangeMap::temporaryPath(mapPath) })
        if (::stat(path.c_str(), &status) == 0 && source.isFile(status))
            return SystemError(EBUSY);
    const bool isNew = ::stat(imagePath.c_str(), &status) != 0;
    if (!isNew)
        if (const auto refusal = refusalOf(status, source))
            return refusal;

    ImageFile image;
    image.descriptor_ = FileDescriptor(
        ::open(imagePath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644));
    if (!image.descriptor_ || ::fstat(image.descriptor_.get(), &status) != 0)
        return SystemError::last();
    // And once more of what was opened, which may be something else by now.
    if (const auto refusal = refusalOf(status, source))
        return refusal;
    if (isNew)
        CallingUser::own(image.descriptor_.get());
    image.sizeAtOpening_ = static_cast<std::uint64_t>(status.st_size);
    return image;
}

bool ImageFile::growTo(std::uint64_t size)
{
    return sizeAtOpening_ >= size || ::ftruncate(descriptor_.get(), static_cast<off_t>(size)) == 0;
}

std::size_t ImageFile::write(std::uint64_t offset, std::span<const std::uint8_t> bytes)
{
    const auto count = FileIO::writeAt(descriptor_.get(), bytes, offset).count;
    CVintrel::startFlushing(descriptor_.get(), offset, count);
    if (!unflushed_.empty() && unflushed_.back().end == offset)
        unflushed_.back().end += count;
    else
        unflushed_.push_back({ offset, offset + count });
    return count;
}

SystemError ImageFile::flush() { return SystemError(CVintrel::flush(descriptor_.get())); }

bool ImageFile::isAt(const std::string& path) const
{
    struct stat named {
    }, open {};
    return ::stat(path.c_str(), &named) == 0 && ::fstat(descriptor_.get(), &open) == 0
        && named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}
