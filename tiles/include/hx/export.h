#pragma once

/// Marks what libHxTiles shows to other programs.
#if defined(__GNUC__)
#define HX_TILES_API __attribute__((visibility("default")))
#else
#define HX_TILES_API
#endif
