#include "CVintrel/Platform.h"

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <fcntl.h>
#include <langinfo.h>
#include <string_view>
#include <unistd.h>

#ifdef __APPLE__
#include <sys/attr.h>
#include <xlocale.h>
#endif

namespace CVintrel {

namespace {

/// The name of the locale that numbers follow, in POSIX's order of precedence; empty when none is
/// set.
std::string_view numericLocale()
{
    for (const char* variable : { "LC_ALL", "LC_NUMERIC", "LANG" })
        if (const char* value = std::getenv(variable); value != nullptr && *value != '\0')
            return value;
    return {};
}

std::string findDecimalSeparator()
{
    if (const locale_t locale = newlocale(LC_NUMERIC_MASK, "", nullptr)) {
        std::string separator = nl_langinfo_l(RADIXCHAR, locale);
        freelocale(locale);
        return separator.empty() ? "." : separator;
    }
    // A small system may not have the data of the user's own locale. Of Danish, the language of the
    // program, the answer is known all the same.
    return numericLocale().starts_with("da") ? "," : ".";
}

} // namespace

const std::string& decimalSeparator()
{
    static const std::string separator = findDecimalSeparator();
    return separator;
}

#ifdef __APPLE__

bool setCreationDate(int descriptor, const std::timespec& date)
{
    attrlist attributes {};
    attributes.bitmapcount = ATTR_BIT_MAP_COUNT;
    attributes.commonattr = ATTR_CMN_CRTIME;
    std::timespec value = date;
    return fsetattrlist(descriptor, &attributes, &value, sizeof value, 0) == 0;
}

int flush(int descriptor)
{
    // fsync() stops at the drive's own memory here. Not every file system can go further.
    if (::fcntl(descriptor, F_FULLFSYNC) == 0)
        return 0;
    const bool isFailure = errno == EIO || errno == ENOSPC;
    return isFailure || ::fsync(descriptor) != 0 ? errno : 0;
}

#else

bool setCreationDate(int /*descriptor*/, const std::timespec& /*date*/) { return false; }

int flush(int descriptor) { return ::fsync(descriptor) == 0 ? 0 : errno; }

#endif

std::uint64_t nextStored(int descriptor, std::uint64_t offset, std::uint64_t size)
{
    const off_t next = ::lseek(descriptor, static_cast<off_t>(offset), SEEK_DATA);
    if (next >= 0)
        return static_cast<std::uint64_t>(next);
    return errno == ENXIO ? size : offset; // ENXIO: a hole up to the end
}

#ifdef __linux__

int flushFileSystem(int descriptor) { return ::syncfs(descriptor) == 0 ? 0 : errno; }

void startFlushing(int descriptor, std::uint64_t offset, std::uint64_t count)
{
    // Left alone, written data waits for up to half a minute, and the copying for all of it at the
    // next flush.
    ::sync_file_range(descriptor, static_cast<off64_t>(offset), static_cast<off64_t>(count),
        SYNC_FILE_RANGE_WRITE);
}

#else

int flushFileSystem(int descriptor) { return flush(descriptor); }

void startFlushing(int /*descriptor*/, std::uint64_t /*offset*/, std::uint64_t /*count*/) { }

#endif

} // namespace CVintrel
