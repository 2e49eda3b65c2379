#pragma once

#include "VintrelCore/FileSystems/Clusters/LostDirectories.h"
#include "VintrelCore/FileSystems/FAT/Context.h"
#include "VintrelCore/FileSystems/FAT/Walker.h"

#include <memory>

/// Directories of a FAT volume that no other one leads to.
class FATLostDirectories : public LostDirectories {
public:
    FATLostDirectories(FATContext& context, WorkProgress* progress);

private:
    void survey(Fragment& fragment, std::uint64_t sector, bool isFirst) override;
    void walkRoot(LostRoot& root) override;
    void walkMisplaced() override { walker_.walkMisplaced(); }

    void noteContinuation(Fragment& fragment, ByteView sector);
    bool isDirectoryAt(std::uint32_t cluster);

    const FATGeometry& geometry_;
    FATWalker walker_;
};
