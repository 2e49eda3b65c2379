#pragma once

#include "VintrelCore/FileSystems/Clusters/DeepInfo.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"

using ExFATDeepInfo = ClusterDeepInfo<ExFATContext>;
