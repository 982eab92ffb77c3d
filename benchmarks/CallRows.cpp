// What the calls cost of which operations are made.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <mutex>

#include "Rows.h"
#include "Support.h"

namespace Bench {
namespace {

constexpr std::size_t kSize = 8192;

struct Call {
  const char* name;
  std::function<void()> run;
};

void Lock(int file, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_len = 1;
  Check(::fcntl(file, F_OFD_SETLK, &lock) == 0);
}

}  // namespace

void MeasureCalls(Report& report, const Scale& scale, const std::filesystem::path& folder) {
  constexpr unsigned int kTimes = 20000;
  const int file = ::open((folder / "calls").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  std::array<char, kSize> from = {}, to = {};
  Check(::pwrite(file, from.data(), kSize, 0) == ssize_t{kSize});
  std::mutex mutex;
  struct stat status = {};
  std::vector<Call> calls = {
      {"fstat", [&] { Check(::fstat(file, &status) == 0); }},
      {"pread, 8 bytes", [&] { Check(::pread(file, to.data(), 8, 0) == 8); }},
      {"pread, 8 KiB", [&] { Check(::pread(file, to.data(), kSize, 0) == ssize_t{kSize}); }},
      {"pwrite, 8 bytes", [&] { Check(::pwrite(file, from.data(), 8, 0) == 8); }},
      {"pwrite, 8 KiB in place",
       [&] { Check(::pwrite(file, from.data(), kSize, 0) == ssize_t{kSize}); }},
      {"lock of a byte of the file, and unlock",
       [&] {
         Lock(file, F_WRLCK);
         Lock(file, F_UNLCK);
       }},
      {"mutex, and unlock", [&] { const std::lock_guard guard(mutex); }},
      {"copy, 8 KiB", [&] {
         std::memcpy(to.data(), from.data(), kSize);
         asm volatile("" : : "r"(to.data()) : "memory");  // else it is left out
       }}};
  InTurns(scale.passes, calls, [&](const Call& call, unsigned int) {
    const double seconds = CpuSeconds([&] {
      for (unsigned int i = 0; i < kTimes; ++i)
        call.run();
    });
    report.Figure(call.name, "µs").Add("time", seconds / kTimes * 1e6);
  });
  ::close(file);
}

}  // namespace Bench
