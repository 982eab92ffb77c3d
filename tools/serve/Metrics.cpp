#include "Metrics.h"

#include <algorithm>
#include <sstream>

namespace Serve {

void Metrics::Count(int status, std::size_t bytes, std::chrono::steady_clock::duration time) {
  const auto add = [](Counter& counter, std::uint64_t number) {
    counter.fetch_add(number, std::memory_order_relaxed);
  };
  const double seconds = std::chrono::duration<double>(time).count();
  const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
  add(m_times[static_cast<std::size_t>(bound - kBounds.begin())], 1);
  add(m_statuses[std::min(static_cast<std::size_t>(status), kStatuses - 1)], 1);
  add(m_bytes, bytes);
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  add(m_nanoseconds, static_cast<std::uint64_t>(nanoseconds));
}

std::string Metrics::Print() const {
  std::ostringstream out;
  const auto head = [&](const char* name, const char* type, const char* help) {
    out << "# HELP hxcf_" << name << " " << help << "\n# TYPE hxcf_" << name << " " << type << "\n";
  };
  head("requests_total", "counter", "Requests answered, by status.");
  for (std::size_t status = 0; status < kStatuses; ++status)
    if (const std::uint64_t count = m_statuses[status])
      out << "hxcf_requests_total{status=\"" << status << "\"} " << count << "\n";
  head("response_bytes_total", "counter", "Bytes of the bodies of answers.");
  out << "hxcf_response_bytes_total " << m_bytes << "\n";
  head("tile_misses_total", "counter", "Tiles asked for that are not there.");
  out << "hxcf_tile_misses_total " << m_misses << "\n";
  head("request_duration_seconds", "histogram", "Time from the request to the answer.");
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < kBounds.size(); ++i)
    out << "hxcf_request_duration_seconds_bucket{le=\"" << kBounds[i] << "\"} "
        << (sum += m_times[i]) << "\n";
  sum += m_times[kBounds.size()];
  out << "hxcf_request_duration_seconds_bucket{le=\"+Inf\"} " << sum << "\n"
      << "hxcf_request_duration_seconds_sum " << static_cast<double>(m_nanoseconds) / 1e9 << "\n"
      << "hxcf_request_duration_seconds_count " << sum << "\n";
  return out.str();
}

}  // namespace Serve
