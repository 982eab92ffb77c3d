#include "Engine.h"

namespace Zarn::Engine {

unsigned int Engine::SetPassword(const PelmUnicodeString& password) {
  constexpr unsigned int kDone = 1;
  constexpr unsigned int kFailed = 0;
  if (const auto cache = GetCacheFile()) return cache->SetPassword(password);
  const WriteOperation operation(m_locks, m_buffers);
  if (!operation.IsUsable() || IsReadOnly()) return kFailed;
  const Format::XorString xorString = Format::MakeXorString(password.GetBuffer());
  if (!File().GetHeader().SetPassword(*File().GetStream(), xorString)) return kFailed;
  m_locks.AssertMutexHeld();
  m_xorString = xorString;
  return kDone;
}

}  // namespace Zarn::Engine
