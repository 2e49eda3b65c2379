#include "VintrelCore/Foundation/FileIO.h"

#include <sys/types.h>
#include <unistd.h>

namespace FileIO {

namespace {

/// Calls `writeSome(done)`, which writes what is left behind the first `done` bytes, until all
/// `size` bytes are written.
template <class WriteSome> Written writeAll(std::size_t size, WriteSome writeSome)
{
    Written written;
    while (written.count < size) {
        const ssize_t count = writeSome(written.count);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            written.error = count < 0 ? SystemError::last() : SystemError(ENOSPC);
            break;
        }
        written.count += static_cast<std::size_t>(count);
    }
    return written;
}

} // namespace

Written writeAt(int descriptor, std::span<const std::uint8_t> bytes, std::uint64_t offset)
{
    return writeAll(bytes.size(), [&](std::size_t done) {
        return ::pwrite(descriptor, bytes.data() + done, bytes.size() - done,
            static_cast<off_t>(offset + done));
    });
}

Written write(int descriptor, std::string_view text)
{
    return writeAll(text.size(), [&](std::size_t done) {
        return ::write(descriptor, text.data() + done, text.size() - done);
    });
}

} // namespace FileIO
