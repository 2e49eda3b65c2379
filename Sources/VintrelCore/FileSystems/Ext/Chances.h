#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Files.h"

namespace ExtChances {

/// Judges what has ended: by the bitmaps of now, by those that the journal has of the time since,
/// by what the journal wrote there since, and by files that ended later.
void judge(ExtContext& context, ExtFiles& files);

} // namespace ExtChances
