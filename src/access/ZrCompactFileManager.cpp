#include "ZrCompactFileManager.h"

#include <charconv>
#include <cstddef>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "Cause.h"

namespace Zarn {
namespace {

constexpr std::size_t kMaxStubs = 4;
constexpr int kScaleDecimals = 15;
// The sign, the digits of the largest double, the point and the decimals.
constexpr std::size_t kMaxScaleLength =
    1 + std::numeric_limits<double>::max_exponent10 + 1 + 1 + kScaleDecimals;

std::string FormatScale(double scale) {
  char text[kMaxScaleLength];
  const auto end =
      std::to_chars(text, text + sizeof text, scale, std::chars_format::fixed, kScaleDecimals);
  return std::string(text, end.ptr);
}

}  // namespace

ZrCompactFileManager::ZrCompactFileManager() = default;
ZrCompactFileManager::~ZrCompactFileManager() = default;

ZrCompactFileManager* ZrCompactFileManager::GetInstance() {
  // Never destroyed: other threads may use its stubs while the process ends. In static storage, so
  // it cannot fail for lack of memory.
  alignas(ZrCompactFileManager) static std::byte storage[sizeof(ZrCompactFileManager)];
  static ZrCompactFileManager* const instance = new (storage) ZrCompactFileManager;
  return instance;
}

PelmUnicodeString ZrCompactFileManager::GetKey(double scale, int row, int col) {
  const Io::PublicCall call("make the key of");
  try {
    return PelmUnicodeString::FromUtf8(FormatScale(scale) + "_" + std::to_string(row) + "_" +
                                       std::to_string(col));
  } catch (const std::bad_alloc&) {
    call.Answer(Io::Fail(ZrCause::kNoMemory), ZrResult::kNotUsable);
    return {};
  }
}

ZrCompactFileStub* ZrCompactFileManager::LookUp(PelmUnicodeString key) {
  // One by one: the comparison ignores case, but the order of the map does not.
  for (const auto& [itsKey, stub] : m_mapStub)
    if (itsKey.CompareNoCase(key) == 0) return stub.get();
  const Io::PublicCall call("look up");
  try {
    decltype(m_mapStub) added;
    ZrCompactFileStub* const stub =
        added.emplace(std::move(key), std::make_unique<ZrCompactFileStub>()).first->second.get();
    // Only now, when nothing can fail any more; the new stub must not be the one that goes.
    if (m_mapStub.size() >= kMaxStubs) m_mapStub.erase(m_mapStub.begin());
    m_mapStub.merge(added);
    return stub;
  } catch (const std::bad_alloc&) {
    call.Answer(Io::Fail(ZrCause::kNoMemory), ZrResult::kNotUsable);
    return nullptr;
  }
}

ZrCompactFileStub* ZrCompactFileManager::LookUp(double scale, int row, int col) {
  PelmUnicodeString key = GetKey(scale, row, col);
  return key.IsEmpty() ? nullptr : LookUp(std::move(key));
}

}  // namespace Zarn
