#include "VintrelCore/Disk/DeviceWatch.h"

#include <CVintrel/Devices.h>

#include <bit>

namespace {

/// Failures in a row before what has been read well is read again, for the first time. Damage
/// makes so many too, so that it costs little there.
constexpr std::uint64_t failuresBeforeProbe = 64;

} // namespace

void DeviceWatch::noteSuccess(std::uint64_t offset)
{
    ++answers_;
    failuresInARow_ = 0;
    lastGood_ = offset;
    if (!firstGood_)
        firstGood_ = offset;
}

void DeviceWatch::noteFailure(int error, int descriptor, const ReadSector& read)
{
    ++failuresInARow_;
    if (!isStillThere(error, descriptor)) {
        hasLeft_ = true;
        return;
    }
    // At each doubling: a disk with much damage is not asked all the time for what it can read.
    const bool isProbeDue
        = failuresInARow_ >= failuresBeforeProbe && std::has_single_bit(failuresInARow_);
    if (!isProbeDue || !firstGood_) // what never read well tells nothing by failing
        return;
    if (canStillRead(read))
        ++answers_;
    else
        hasLeft_ = true;
}

bool DeviceWatch::isStillThere(int error, int descriptor) const
{
    if (CVintrel::meansNoDevice(error))
        return false;
    const auto geometry = CVintrel::deviceGeometry(descriptor);
    return geometry && geometry->blockCount * geometry->blockSize == size_;
}

bool DeviceWatch::canStillRead(const ReadSector& read) const
{
    return read(*lastGood_) || (firstGood_ != lastGood_ && read(*firstGood_));
}
