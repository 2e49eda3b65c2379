#pragma once

#include "VintrelCore/FileSystems/Clusters/DeepInfo.h"
#include "VintrelCore/FileSystems/FAT/Context.h"

using FATDeepInfo = ClusterDeepInfo<FATContext>;
