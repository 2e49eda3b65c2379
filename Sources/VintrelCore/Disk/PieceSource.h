#pragma once

#include "VintrelCore/Foundation/ByteRange.h"

#include <memory>
#include <vector>

class DiskSource;

/// The file that lies in these pieces of a source, in the order of the file, as a source of its
/// own. The source must outlive it.
std::unique_ptr<DiskSource> sourceOfPieces(DiskSource& source, std::vector<ByteRange> pieces);
