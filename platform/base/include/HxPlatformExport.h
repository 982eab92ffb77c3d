#pragma once

/// Marks a class or function of the base libraries as visible outside its shared library. The
/// libraries are built with hidden visibility, so whatever lacks this mark stays internal.
#define HX_PLATFORM_API __attribute__((visibility("default")))
