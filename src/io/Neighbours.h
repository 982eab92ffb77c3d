#pragma once

#include "ZrFileStream.h"

namespace Zarn::Io {

/// Whether a write of these bytes of a grid file runs over the beginning of a record.
///
/// A light writer leaves the unused capacity of its last record unwritten, and not every one goes
/// behind it with the next: some append where the file ends, which is inside that capacity. So what
/// a record has not filled may hold other tiles. Bytes that only look like a record count as one:
/// who asks then appends instead, which costs no more than dead space. So they do where the file
/// cannot be read.
bool RunsOverRecord(const ZrFileStream& file, bool swap, std::uint64_t begin, std::uint64_t end);

}  // namespace Zarn::Io
