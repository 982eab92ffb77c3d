#pragma once

#include "HxPlatformExport.h"

namespace Zarn {

/// Number of units before the terminating zero; 0 for null.
HX_PLATFORM_API int Zr_strlen(const char16_t* text);

/// Below, equal to or above 0, as `a` sorts against `b` by unsigned code unit.
HX_PLATFORM_API int Zr_strcmp(const char16_t* a, const char16_t* b);

}  // namespace Zarn
