#pragma once

#include "IndexHeaders.h"
#include "Scramble.h"
#include "ZrFile64.h"

/// A container of this host without tiles, in an empty file. The entries need no writing: they lie
/// in a hole.
namespace Zarn::Engine {

bool WriteEmptyContainer(ZrFile64& file, const Format::XorString& xorString,
                         const Format::GridHeader& header, double createTime);
bool WriteEmptyContainer(ZrFile64& file, const Format::XorString& xorString,
                         const Format::NamingHeader& header, double createTime);

}  // namespace Zarn::Engine
