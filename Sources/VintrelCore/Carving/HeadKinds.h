#pragma once

#include "VintrelCore/Foundation/Binary.h"

/// The extension of the kind of file whose beginning these bytes are, or of one of a family of
/// kinds: a literal; null for a kind of which the beginning alone is of no use.
const char* extensionByHead(ByteView head);
