#include <new>

#include "Engine.h"
#include "Verifier.h"

namespace Zarn::Engine {

unsigned int Engine::Verify(ZrVerifySummary& summary, const ZrCompactFile::VerifyReport& report,
                            const ZrCompactFile::VerifyProgress& progress) {
  summary = {};
  if (GetCacheFile() != nullptr) return ZrResult::kNotUsable;
  ReadOperation operation(m_locks, m_state);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!operation.IsUsable()) return ZrResult::kReadFailure;
  const std::shared_ptr<ZrFile64> file = File().GetStream();
  const Format::XorString xorString = File().GetHeader().GetXorString();
  const std::uint64_t generation = File().GetBoard().GetGeneration();
  // Without the locks: others may work meanwhile. The check ends if the file is another one then.
  const auto tell = [&](unsigned long long done, unsigned long long total) {
    return operation.Pause([&] { return !progress || progress(done, total); }) &&
           m_state.file->GetBoard().GetGeneration() == generation;
  };
  try {
    return VerifyFile(*file, xorString, report, tell, summary);
  } catch (const std::bad_alloc&) {
    return ZrResult::kNotUsable;
  }
}

}  // namespace Zarn::Engine
