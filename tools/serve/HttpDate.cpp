#include "HttpDate.h"

#include <array>

namespace Serve {
namespace {

constexpr char kHttpDate[] = "%a, %d %b %Y %H:%M:%S GMT";

// The names of days and months are those of the C locale, which the program never leaves.
std::string Format(const char* format, std::time_t time) {
  std::tm parts = {};
  ::gmtime_r(&time, &parts);
  std::array<char, 64> text;
  return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

}  // namespace

std::string ToHttpDate(std::time_t time) { return Format(kHttpDate, time); }

const std::string& NowAsHttpDate() {
  thread_local std::time_t made = 0;
  thread_local std::string text;
  const std::time_t now = std::time(nullptr);
  if (now != made) {
    text = ToHttpDate(now);
    made = now;
  }
  return text;
}

std::string ToIsoDate(std::time_t time) { return Format("%Y-%m-%dT%H:%M:%SZ", time); }

}  // namespace Serve
