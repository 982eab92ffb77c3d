#pragma once

#include <hx/bytes.h>
#include <hx/error.h>

#include <optional>

#include "Python.h"
#include "Store.h"

namespace hxpy {

using MaybeStamp = std::optional<hx::Stamp>;

/// Reads the newest version of a tile, or the one of a stamp. False if there is none.
bool LookUp(Store& store, PyObject* key, const MaybeStamp& stamp, hx::Payload& payload);

/// The same as a new object `bytes`; null, and no exception, if there is none.
PyObject* LookUpBytes(Store& store, PyObject* key, const MaybeStamp& stamp);

/// Whether a failure says that there is no tile of such a key, or can be none.
bool IsMissing(hx::Cause cause);

/// `call()` while other threads of Python run; nothing if it fails because no tile can have the
/// key.
template <typename Call>
auto IfPossible(Call call) -> decltype(call()) {
  try {
    return WithoutLock(call);
  } catch (const hx::Error& error) {
    if (!IsMissing(error.cause())) throw;
    return {};
  }
}

}  // namespace hxpy
