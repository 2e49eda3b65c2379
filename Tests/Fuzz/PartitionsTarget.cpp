#include "Tests/Fuzz/Support/DiskTarget.h"

const DiskTarget target { { Bases::blank, Bases::partitions }, quickScan };
