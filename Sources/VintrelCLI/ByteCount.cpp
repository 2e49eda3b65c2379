#include "VintrelCLI/ByteCount.h"

#include <CVintrel/Platform.h>

std::string formatBytes(std::uint64_t count)
{
    return formatBytes(count, CVintrel::decimalSeparator());
}
