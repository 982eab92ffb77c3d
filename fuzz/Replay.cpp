// Runs a fuzzer on the files given as arguments, or in folders given, without libFuzzer:
//   TARGET [--changes N] PATH...   each as it is, and N random changes of them, always the same
//   ones
// The input that is being run is in TARGET.input meanwhile, and stays there if the run ends by it.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "Harness.h"

namespace {

namespace fs = std::filesystem;

std::minstd_rand g_random;

std::size_t Below(std::size_t limit) { return g_random() % limit; }

void Run(const PelmUnicodeString& copy, const Fuzz::Bytes& bytes) {
  Fuzz::WriteFile(copy, bytes);
  LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

}  // namespace

// Changes one byte, takes some away, or puts a copy of some in front of others.
extern "C" std::size_t LLVMFuzzerMutate(unsigned char* bytes, std::size_t size, std::size_t most) {
  if (size == 0) return 0;
  const std::size_t offset = Below(size), count = 1 + Below(std::min(size - offset, most / 8));
  switch (Below(4)) {
    case 0:
      std::memmove(bytes + offset, bytes + offset + count, size - offset - count);
      return size - count;
    case 1:
      if (size + count > most) break;
      std::memmove(bytes + offset + count, bytes + offset, size - offset);
      return size + count;
  }
  bytes[offset] =
      static_cast<unsigned char>(Below(2) == 0 ? Below(256) : bytes[offset] ^ 1U << Below(8));
  return size;
}

int main(int argc, char** argv) {
  std::size_t changes = 0;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--changes") == 0 && i + 1 < argc)
      changes = std::strtoul(argv[++i], nullptr, 10);
    else if (fs::is_directory(argv[i]))
      std::copy(fs::directory_iterator(argv[i]), {}, std::back_inserter(files));
    else
      files.emplace_back(argv[i]);
  }
  std::sort(files.begin(), files.end());
  if (files.empty()) return 2;

  const auto copy = PelmUnicodeString::FromUtf8(fs::path(argv[0]).filename().string() + ".input");
  std::vector<Fuzz::Bytes> inputs;
  for (const fs::path& file : files) {
    inputs.push_back(Fuzz::ReadFile(PelmUnicodeString::FromUtf8(file.string())));
    Run(copy, inputs.back());
  }
  for (std::size_t i = 0; i < changes; ++i) {
    Fuzz::Bytes bytes = inputs[i % inputs.size()];
    std::size_t size = bytes.size();
    bytes.resize(size + 256);
    auto* const data = reinterpret_cast<unsigned char*>(bytes.data());
    for (std::size_t left = 1 + Below(4); left > 0; --left)
      size =
          LLVMFuzzerCustomMutator(data, size, bytes.size(), static_cast<unsigned int>(g_random()));
    bytes.resize(size);
    Run(copy, bytes);
  }
  std::remove(copy.ToUtf8().c_str());
  std::printf("%zu inputs, %zu changes of them\n", inputs.size(), changes);
}
