#include "Harness.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "Layout.h"

// Of the address sanitizer, if it is there.
extern "C" {
__attribute__((weak)) int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*,
                                                                             std::size_t),
                                                                    void (*)(const volatile void*));
__attribute__((weak)) std::size_t __sanitizer_get_allocated_size(const volatile void*);
}

namespace Fuzz {
namespace {

namespace fs = std::filesystem;

std::atomic<std::int64_t> g_inUse{0}, g_mostInUse{INT64_MAX};
std::atomic<Number> g_largest{UINT64_MAX};

std::int64_t SizeOf(const volatile void* bytes) {
  return static_cast<std::int64_t>(__sanitizer_get_allocated_size(bytes));
}

void OnMalloc(const volatile void* bytes, std::size_t size) {
  const std::int64_t inUse = g_inUse += SizeOf(bytes);
  const std::int64_t mostInUse = g_mostInUse;
  const Number largest = g_largest;
  if (size <= largest && inUse <= mostInUse) return;
  g_largest = UINT64_MAX, g_mostInUse = INT64_MAX;  // for the report
  std::fprintf(stderr,
               "too much memory: %zu bytes of at most %llu; %lld more in all than allowed\n", size,
               largest, static_cast<long long>(inUse - mostInUse));
  std::abort();
}

void OnFree(const volatile void* bytes) {
  if (bytes != nullptr) g_inUse -= SizeOf(bytes);
}

const bool g_prepared = [] {
  if (__sanitizer_install_malloc_and_free_hooks != nullptr)
    __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree);
  // Holes may be as large as the largest index; more is a write that fails.
  std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {5ULL << 30, RLIM_INFINITY};
  return ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}();

}  // namespace

Parts Split(const unsigned char* bytes, std::size_t size) {
  if (size == 0) return {"", {bytes, 0}};
  const std::size_t count = std::min<std::size_t>(bytes[size - 1], size - 1);
  const std::size_t length = size - 1 - count;
  return {Bytes(reinterpret_cast<const char*>(bytes), length), {bytes + length, count}};
}

const std::string& Folder() {
  struct Temporary {
    std::string path;
    Temporary() {
      const char* const parent = std::getenv("TMPDIR");
      path = std::string(parent != nullptr ? parent : "/dev/shm") + "/hxcf-fuzz-XXXXXX";
      CHECK(::mkdtemp(path.data()) != nullptr);
    }
    ~Temporary() {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
  };
  static const Temporary folder;
  return folder.path;
}

void WriteFile(const PelmUnicodeString& path, const Bytes& bytes) {
  std::ofstream(path.ToUtf8(), std::ios::binary | std::ios::trunc) << bytes;
}

Bytes WithoutWords(Bytes file) {
  if (file.size() >= Zarn::Format::kHeaderSize)
    file.replace(Zarn::Format::kHeaderFieldsSize,
                 Zarn::Format::kHeaderSize - Zarn::Format::kHeaderFieldsSize, "");
  return file;
}

Bytes ReadFile(const PelmUnicodeString& path) {
  std::ifstream file(path.ToUtf8(), std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

bool Exists(const PelmUnicodeString& path) { return fs::exists(path.ToUtf8()); }

struct stat StatusOf(const PelmUnicodeString& path) {
  struct stat status = {};
  ::stat(path.ToUtf8().c_str(), &status);
  return status;
}

MemoryLimit::MemoryLimit(Number inUse, Number largest) {
  g_mostInUse = g_inUse + static_cast<std::int64_t>(inUse);
  g_largest = largest;
}

MemoryLimit::~MemoryLimit() {
  g_mostInUse = INT64_MAX;
  g_largest = UINT64_MAX;
}

}  // namespace Fuzz

// Half of the changes put a number that means something where a field may be; libFuzzer knows
// neither positions, nor that one number is in another's byte order.
extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* bytes, std::size_t size,
                                               std::size_t most, unsigned int seed) {
  std::minstd_rand random(seed);
  const auto below = [&](std::uint64_t limit) { return random() % limit; };
  if (size < 16 || below(2) == 0) return LLVMFuzzerMutate(bytes, size, most);
  const std::size_t offset = below(size - 8);
  std::uint64_t number;
  std::memcpy(&number, bytes + (below(2) == 0 ? offset : below(size - 8)), sizeof number);
  const std::uint64_t numbers[] = {
      number + below(65) - 32,
      below(8),
      below(size),
      size - offset + below(3) - 1,
      (1 + below(4)) << 56 | below(size),
      std::uint64_t{1} << below(64),
      (std::uint64_t{1} << below(64)) - 1,
      number ^ std::uint64_t{1} << below(64),
      number,
  };
  number = numbers[below(std::size(numbers))];
  const std::size_t width = below(3) == 0 ? 4 : 8;
  const bool big = below(2) == 0;
  for (std::size_t i = 0; i < width; ++i)
    bytes[offset + i] = static_cast<unsigned char>(number >> 8 * (big ? width - 1 - i : i));
  return size;
}
