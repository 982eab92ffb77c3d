#pragma once

#include "ZrFileStream.h"

namespace Zarn {

/// The stream of the engine.
class HX_PLATFORM_API ZrFile64 : public ZrFileStream {};

}  // namespace Zarn
