#include <new>

#include "Engine.h"
#include "Verifier.h"

namespace Zarn::Engine {

unsigned int Engine::Verify(ZrVerifySummary& summary, const ZrCompactFile::VerifyReport& report,
                            const ZrCompactFile::VerifyProgress& progress) {
  summary = {};
  if (GetCacheFile() != nullptr) return ZrResult::kNotUsable;
  ReadOperation operation(m_locks, m_buffers, Operation::kLongReader);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!operation.IsUsable()) return ZrResult::kReadFailure;
  const std::shared_ptr<ZrFile64> file = File().GetStream();
  const Format::XorString xorString = File().GetHeader().GetXorString();
  operation.LeaveMutex();
  try {
    return VerifyFile(*file, xorString, report, progress, summary);
  } catch (const std::bad_alloc&) {
    return ZrResult::kNotUsable;
  }
}

}  // namespace Zarn::Engine
