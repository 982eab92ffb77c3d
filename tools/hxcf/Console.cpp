#include "Console.h"

#include <unistd.h>

#include <cstdio>

namespace Hxcf {

void Console::Note(const std::string& text) const {
  if (!isQuiet) std::fprintf(stderr, "hxcf: %s\n", text.c_str());
}

bool Console::ShowsProgress() const { return !isQuiet && !isJson && ::isatty(STDERR_FILENO) == 1; }

void Console::PrintJson(const Json& json) const {
  std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

Progress::Progress(const Console& console, std::string what)
    : m_what(std::move(what)), m_isShown(console.ShowsProgress()) {}

Progress::~Progress() {
  if (m_hasLine) std::fprintf(stderr, "\r\033[K");
}

void Progress::Show(std::uint64_t done, std::uint64_t total) {
  const auto now = Clock::now();
  if (!m_isShown || now < m_next) return;
  m_next = now + std::chrono::milliseconds(200);
  m_hasLine = true;
  const double seconds = std::chrono::duration<double>(now - m_begin).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  std::fprintf(stderr, "\r\033[K%s %llu", m_what.c_str(), static_cast<unsigned long long>(done));
  if (total >= done && total != 0) {
    std::fprintf(stderr, " of %llu (%.0f %%)", static_cast<unsigned long long>(total),
                 100.0 * static_cast<double>(done) / static_cast<double>(total));
    if (rate > 0) std::fprintf(stderr, ", %.0f s left", static_cast<double>(total - done) / rate);
  }
  std::fprintf(stderr, ", %.0f/s", rate);
}

std::string Bytes(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  for (; value >= 1000 && unit < 6; ++unit)
    value /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

}  // namespace Hxcf
