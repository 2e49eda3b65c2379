#include "Tests/Fuzz/Support/DiskTarget.h"

const DiskTarget target { { Bases::blank, Bases::fat12, Bases::fat16, Bases::fat32, Bases::exFAT,
                              Bases::ntfs, Bases::shadowCopies, Bases::hfsPlus, Bases::apfs,
                              Bases::ext, Bases::partitions },
    [](DiskSource& source, const Bytes&) { return Exercise::deep(source, false); } };
