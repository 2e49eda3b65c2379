#pragma once

#include "Tests/Images/APFSImage.h"
#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/ExtImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Images/NTFSImage.h"
#include "Tests/Images/PartitionImage.h"

/// One small volume of each kind with something of everything: folders in each other, content in
/// pieces, deleted files, what only this kind has. Made to be damaged.
namespace SmallVolumes {

FATImage smallCard(FileSystemType type);
ExFATImage smallExFATCard();
ExtImage smallExtVolume();
HFSPlusImage smallHFSPlusVolume();
NTFSImage smallNTFSVolume();
APFSImage smallAPFSContainer();
/// A GPT, an MBR and a chain of logical partitions on one disk.
PartitionImage partitionedDisk();

} // namespace SmallVolumes
