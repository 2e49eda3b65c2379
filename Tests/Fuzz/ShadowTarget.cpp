#include "Tests/Fuzz/Support/DiskTarget.h"

const DiskTarget target { { Bases::blank, Bases::shadowCopies },
    [](DiskSource& source, const Bytes&) { return Exercise::deep(source, false); } };
