#include <new>

#include "OperationLock.h"
#include "Verifier.h"
#include "ZrCompactFile.h"

namespace Zarn {

unsigned int ZrCompactFile::Verify(ZrVerifySummary& summary) {
  return Verify(summary, VerifyReport());
}

unsigned int ZrCompactFile::Verify(ZrVerifySummary& summary, const VerifyReport& report,
                                   const VerifyProgress& progress) {
  summary = {};
  if (GetCacheFile() != nullptr) return ZrResult::kNotUsable;
  Engine::OperationLock lock(*this, Engine::OperationLock::kLongReader);
  if (!m_bOpened) return ZrResult::kNotOpen;
  if (!lock.IsUsable()) return ZrResult::kReadFailure;
  const std::shared_ptr<ZrFile64> file = m_file;
  const Format::XorString xorString = m_xorString;
  lock.LeaveMutex();
  try {
    return Engine::Verifier(*file, xorString, report, progress, summary).Run();
  } catch (const std::bad_alloc&) {
    return ZrResult::kNotUsable;
  }
}

}  // namespace Zarn
