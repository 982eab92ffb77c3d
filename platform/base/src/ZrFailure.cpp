#include "ZrFailure.h"

#include <cerrno>

namespace Zarn {
namespace {

// Found without a call, and so without memory: it is noted, too, that memory is short.
[[gnu::tls_model("initial-exec")]] constinit thread_local ZrFailureNote t_note;

}  // namespace

ZrFailureNote& GetFailureNote() noexcept { return t_note; }

bool FailBySystem(int error) noexcept {
  t_note = {error, 0};
  return false;
}

bool FailBySystem() noexcept { return FailBySystem(errno); }

}  // namespace Zarn
