#pragma once

#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/Volume.h"

#include <utility>

/// What the search for lost volumes needs to know of a volume that was read.
class NTFSDeepInfo : public DeepContext {
public:
    NTFSDeepInfo(const NTFSGeometry& volumeGeometry, MappedStream volumeMFT, FileData volumeBitmap)
        : geometry(volumeGeometry)
        , mft(std::move(volumeMFT))
        , bitmap(std::move(volumeBitmap))
    {
    }

    NTFSGeometry geometry;
    MappedStream mft; ///< empty when the records do not lie in one MFT
    FileData bitmap;  ///< where $Bitmap lies; none when it is not known
};
