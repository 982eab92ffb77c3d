#pragma once

#include "ZrFileStream.h"

namespace Zarn {

/// The stream of the light classes. The name is historical: offsets are 64-bit here too.
class HX_PLATFORM_API ZrFile32 : public ZrFileStream {};

}  // namespace Zarn
