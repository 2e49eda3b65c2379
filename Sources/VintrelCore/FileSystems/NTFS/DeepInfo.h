#pragma once

#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/Model/Volume.h"

#include <utility>

/// What the search for lost volumes needs to know of a volume that was read.
class NTFSDeepInfo : public DeepContext {
public:
    NTFSDeepInfo(const NTFSGeometry& volumeGeometry, MappedStream volumeMFT)
        : geometry(volumeGeometry)
        , mft(std::move(volumeMFT))
    {
    }

    NTFSGeometry geometry;
    MappedStream mft;
};
