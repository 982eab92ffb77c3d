#include "Lookup.h"

#include "Errors.h"
#include "Types.h"

namespace hxpy {

bool IsMissing(hx::Cause cause) {
  using hx::Cause;
  switch (cause) {
    case Cause::kNoTile:
    case Cause::kOutOfRange:
    case Cause::kEmptyArgument:
    case Cause::kTooLong:
      return true;
    default:
      return false;
  }
}

// A lookup of a stamp that is not there gives the newest version.
bool LookUp(Store& store, PyObject* key, const MaybeStamp& stamp, hx::Payload& payload) {
  const Address address(key);
  const Store::Use use(store);
  const auto place = use.Find(address);
  if (!place) return false;
  const hx::Status status = WithoutLock(
      [&] { return place->container->try_get(place->key, payload, stamp.value_or(hx::kNewest)); });
  if (status) return !stamp || payload.stamp() == *stamp;
  if (!IsMissing(status.cause())) Throw(status);
  return false;
}

// The bytes are read into memory that each thread keeps, and are still in the processor's cache
// when they are copied from there: that costs less than memory of their own for each read.
PyObject* LookUpBytes(Store& store, PyObject* key, const MaybeStamp& stamp) {
  constexpr std::size_t kMostKept = 4 << 20;
  thread_local hx::Payload t_payload;
  if (!LookUp(store, key, stamp, t_payload)) return nullptr;
  PyObject* const bytes = ToPython(hx::Bytes(t_payload)).release().ptr();
  if (t_payload.size() > kMostKept) t_payload = hx::Payload();
  return bytes;
}

}  // namespace hxpy
