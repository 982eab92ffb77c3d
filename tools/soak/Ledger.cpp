#include "Ledger.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "ZrError.h"

namespace Soak {

Ledger* g_ledger;

namespace {
int g_news[2];
}  // namespace

std::int64_t Now() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void Fail(Wrong wrong, const char* what, std::uint32_t tile, std::uint32_t stamp,
          unsigned int result) {
  if (++g_ledger->wrong[wrong] <= 20)
    std::fprintf(stderr, "%s: %s: tile %u, version %u, result %u; last error: %s\n",
                 kWrongNames[wrong], what, tile, stamp, result,
                 Zarn::ZrErrorText(Zarn::ZrLastError()).c_str());
}

void News::Begin() {
  if (::pipe2(g_news, O_NONBLOCK | O_CLOEXEC | O_DIRECT) != 0 ||
      ::fcntl(g_news[1], F_SETPIPE_SZ, 1) < 0)
    std::abort();
}

void News::Tell(std::uint32_t tile) {
  if (::write(g_news[1], &tile, sizeof tile) > 0) return;
}

void News::Wait() {
  pollfd news = {g_news[0], POLLIN, 0};
  ::poll(&news, 1, 1);
}

bool News::Get(std::uint32_t& tile) { return ::read(g_news[0], &tile, sizeof tile) == sizeof tile; }

}  // namespace Soak
