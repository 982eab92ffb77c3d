#pragma once

/// @file
/// The face of the library for programs in C++17 and later: containers of tiles that close
/// themselves, keys and payloads of the standard library's kinds, and errors as exceptions.
///
///   hx::Container  one file, by cell or by name
///   hx::Tileset    a pyramid of tiles by zoom, column and row, with its metadata

#include "hx/container.h"
#include "hx/metadata.h"
#include "hx/tileset.h"
