#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ZrCompactFile.h"

/// Ends the program if the condition does not hold, in every build.
#define CHECK(condition) \
  ((condition)           \
       ? void()          \
       : (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), std::abort()))

/// What all fuzzers share. Each of them is a libFuzzer target, or with Replay.cpp a program that
/// runs inputs from files, and changes of them, with any compiler.
namespace Fuzz {

using Number = unsigned long long;
using Bytes = std::string;
using Zarn::ZrCompactFile, Zarn::ZrResult;

/// The rest of an input; zeros behind its end.
struct Input {
  const unsigned char* bytes;
  std::size_t size;

  unsigned char Next() {
    if (size == 0) return 0;
    --size;
    return *bytes++;
  }
  Number NextLength() {  // of two bytes
    const Number low = Next();
    return low + Number{256} * Next();
  }
  Number NextNumber() {  // small, or near a limit
    constexpr Number kMax = ZrCompactFile::kMaxCapacity;
    constexpr Number kLarge[] = {1000, 60000, kMax, kMax + 1, UINT32_MAX, UINT64_MAX};
    const unsigned char byte = Next();
    return byte < 250 ? byte : kLarge[byte - 250];
  }
};

/// An input that is a file and commands: the last byte counts those before it.
struct Parts {
  Bytes file;
  Input commands;
};
Parts Split(const unsigned char* bytes, std::size_t size);

/// A folder in memory for the files under test, for the whole run.
const std::string& Folder();
inline PelmUnicodeString Path(const std::string& name) {
  return PelmUnicodeString::FromUtf8(Folder() + "/" + name);
}
void WriteFile(const PelmUnicodeString& path, const Bytes& bytes);
/// Empty if there is none.
Bytes ReadFile(const PelmUnicodeString& path);
/// A container's bytes without what those who share it change in its header.
Bytes WithoutWords(Bytes file);
bool Exists(const PelmUnicodeString& path);
/// What the system knows of a file; zeros if there is none.
struct stat StatusOf(const PelmUnicodeString& path);
inline Number LengthOf(const PelmUnicodeString& path) {
  return static_cast<Number>(StatusOf(path).st_size);
}

inline PelmUnicodeString PasswordOf(bool secret) { return secret ? u"secret" : u""; }

/// While it lives, more memory in use by these bytes than at its beginning ends the program; and so
/// does one piece of more than `largest`. Only with the address sanitizer.
class MemoryLimit {
 public:
  MemoryLimit(Number inUse, Number largest);
  ~MemoryLimit();
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

  /// What an operation on a file of this length may take: twice what lies in the file, in one
  /// piece; the table of names, of up to 4 times their slots; a few such pieces; and fixed buffers.
  static MemoryLimit ForFile(Number length, Number fixed) {
    return {16 * length + fixed, 4 * length + fixed};
  }
};

constexpr Number kBuffers = 512 << 10;           // fixed ones of all operations
constexpr Number kCompactionBuffers = 5U << 20;  // among them one of 2 MiB, and two of 1 MiB

/// What a lookup gave, which must be one of the things that it may give.
struct Tile {
  unsigned int result;
  Bytes payload;
  Number filled;

  bool operator==(const Tile&) const = default;
};
/// Looks up a cell, or a name; for the engine.
template <typename... Place>
Tile Look(ZrCompactFile& file, Number stamp, const Place&... place) {
  const Bytes before = "before";
  Zarn::ZrByteArray data(before.data(), before.size());
  Tile tile{0, "", 77};
  tile.result = file.Lookup(place..., data, tile.filled, stamp);
  tile.payload.assign(data.GetData(), data.GetData() + data.GetSize());
  if (tile.result == ZrResult::kOk)
    CHECK(tile.filled <= tile.payload.size());
  else if (tile.result == ZrResult::kNotFound)
    CHECK(tile.payload.empty() && tile.filled == 0);
  else
    CHECK(tile.result == ZrResult::kReadFailure && tile.payload == before && tile.filled == 0);
  return tile;
}

}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size);
extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* bytes, std::size_t size,
                                               std::size_t most, unsigned int seed);
extern "C" std::size_t LLVMFuzzerMutate(unsigned char* bytes, std::size_t size, std::size_t most);
