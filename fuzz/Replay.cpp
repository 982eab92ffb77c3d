// Runs a fuzzer on the files given as arguments, or in folders given, without libFuzzer:
//   TARGET [--changes N] PATH...   each as it is, and N random changes of them, always the same
//   ones
// An input that ends the run, or takes a minute, is left in TARGET.input.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <random>
#include <string_view>
#include <vector>

#include "Harness.h"

// Of the sanitizers, if they are there.
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*)());

namespace {

namespace fs = std::filesystem;

std::minstd_rand g_random;

std::size_t Below(std::size_t limit) { return g_random() % limit; }

std::string g_path;          // for the input that ends the run
const Fuzz::Bytes* g_input;  // that is being run; null between two

// Called in the middle of anything: system calls only.
void SaveInput() {
  if (g_input == nullptr) return;
  const int file = ::open(g_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const bool written = ::write(file, g_input->data(), g_input->size()) >= 0;
  for (const std::string_view text :
       {"the input is ", written ? "in " : "not in ", g_path.c_str(), "\n"})
    static_cast<void>(!::write(STDERR_FILENO, text.data(), text.size()));
}

void OnSignal(int number) {
  SaveInput();
  std::signal(number, SIG_DFL);
  std::raise(number);
}

void SaveInputAtTheEnd() {
  std::signal(SIGABRT, OnSignal);
  std::signal(SIGALRM, OnSignal);
  if (__sanitizer_set_death_callback != nullptr) return __sanitizer_set_death_callback(SaveInput);
  std::signal(SIGSEGV, OnSignal);
  std::signal(SIGBUS, OnSignal);
}

void Run(const Fuzz::Bytes& bytes) {
  constexpr unsigned int kHangs = 60;  // seconds
  g_input = &bytes;
  ::alarm(kHangs);
  LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  g_input = nullptr;
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

  g_path = fs::path(argv[0]).filename().string() + ".input";
  SaveInputAtTheEnd();
  std::vector<Fuzz::Bytes> inputs;
  for (const fs::path& file : files) {
    inputs.push_back(Fuzz::ReadFile(PelmUnicodeString::FromUtf8(file.string())));
    Run(inputs.back());
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
    Run(bytes);
  }
  std::printf("%zu inputs, %zu changes of them\n", inputs.size(), changes);
}
