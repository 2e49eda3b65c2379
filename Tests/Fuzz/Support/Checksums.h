#pragma once

#include "VintrelCore/Foundation/Binary.h"

/// Makes checksums fit again after damage, wherever something that has one lies: a wrong checksum
/// hides from a reader what lies behind it.
namespace Checksums {

void renew(Bytes& image);

} // namespace Checksums
