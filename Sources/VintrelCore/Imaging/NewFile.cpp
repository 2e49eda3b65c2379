#include "VintrelCore/Imaging/NewFile.h"

#include "VintrelCore/Foundation/CallingUser.h"
#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/FileIO.h"

#include <CVintrel/Platform.h>

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace {

/// Makes a new file with this content that is safe on the disk.
SystemError writeNewFile(const std::string& path, std::string_view text)
{
    // Not emptied but made anew: what has this name may be a link to anything.
    ::unlink(path.c_str());
    FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file)
        return SystemError::last();
    CallingUser::own(file.get());
    if (const auto written = FileIO::write(file.get(), text); written.error)
        return written.error;
    if (const SystemError error(CVintrel::flush(file.get())); error)
        return error;
    return file.close();
}

/// Makes the names in the folder of `path` safe on the disk. Not every file system can; a name that
/// gets lost with the power leads back to the file before.
void flushFolderOf(const std::string& path)
{
    const auto folder = std::filesystem::path(path).parent_path();
    const FileDescriptor descriptor(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor)
        ::fsync(descriptor.get());
}

} // namespace

SystemError replaceFile(
    const std::string& path, const std::string& temporaryPath, std::string_view text)
{
    if (const auto error = writeNewFile(temporaryPath, text)) {
        // Half a file is of no use, and on a full disk it takes up room.
        ::unlink(temporaryPath.c_str());
        return error;
    }
    if (::rename(temporaryPath.c_str(), path.c_str()) != 0)
        return SystemError::last();
    flushFolderOf(path);
    return {};
}
