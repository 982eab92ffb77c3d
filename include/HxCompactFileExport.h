#pragma once

/// Marks what libHxCompactFile.so exports. The library is built with hidden visibility, so whatever
/// lacks this mark stays internal.
#define HX_COMPACTFILE_API __attribute__((visibility("default")))
