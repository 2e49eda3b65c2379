#pragma once

#include "VintrelCore/Foundation/Page/EmbeddedText.h"

extern const EmbeddedText pageScript;
extern const EmbeddedText pageControls;
