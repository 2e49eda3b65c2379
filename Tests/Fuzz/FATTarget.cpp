#include "Tests/Fuzz/Support/DiskTarget.h"

const DiskTarget target { { Bases::blank, Bases::fat12, Bases::fat16, Bases::fat32 }, quickScan };
