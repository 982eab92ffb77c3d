#include <new>

#include "Cause.h"
#include "Engine.h"
#include "Verifier.h"

namespace Zarn::Engine {

unsigned int Engine::Verify(ZrVerifySummary& summary, const ZrCompactFile::VerifyReport& report,
                            const ZrCompactFile::VerifyProgress& progress) {
  summary = {};
  if (m_bHasCacheFile) return Io::Fail(ZrCause::kWrongKind, ZrResult::kNotUsable);
  ReadOperation operation(m_locks, m_state);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!operation.IsUsable()) return ZrResult::kReadFailure;
  const std::shared_ptr<ZrFile64> file = File().GetStream();
  const Format::XorString xorString = File().GetHeader().GetXorString();
  const std::uint64_t generation = File().GetBoard().GetGeneration();
  // Without the locks: others may work meanwhile. The check ends if the file is another one then.
  const auto tell = [&](unsigned long long done, unsigned long long total) {
    bool goesOn = false;
    const auto ask = [&] {
      const Io::KeptNote kept;
      return goesOn = !progress || progress(done, total);
    };
    return (operation.Pause(ask) && m_state.file->GetBoard().GetGeneration() == generation) ||
           Io::Fail(goesOn ? ZrCause::kMoved : ZrCause::kCancelled);
  };
  try {
    return VerifyFile(*file, xorString, report, tell, summary);
  } catch (const std::bad_alloc&) {
    return Io::Fail(ZrCause::kNoMemory, ZrResult::kNotUsable);
  }
}

}  // namespace Zarn::Engine
