#pragma once

#include "VintrelCore/FileSystems/Clusters/LostDirectories.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"
#include "VintrelCore/FileSystems/ExFAT/Walker.h"

/// Directories of an exFAT volume that no other one leads to.
class ExFATLostDirectories : public LostDirectories {
public:
    ExFATLostDirectories(ExFATContext& context, WorkProgress* progress);

private:
    void survey(Fragment& fragment, std::uint64_t sector, bool isFirst) override;

    ExFATWalker walker_;
};
