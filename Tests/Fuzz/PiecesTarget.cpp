#include "Tests/Fuzz/Support/DiskTarget.h"

const DiskTarget target { { Bases::blank },
    [](DiskSource& source, const Bytes&) { return Exercise::deep(source, true); } };
