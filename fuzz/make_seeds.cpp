// Writes the inputs that fuzzing begins with: make_seeds FOLDER makes one folder per target. They
// are good files of all kinds in both byte orders, with commands behind them.
#include <bit>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "PmDirectory.h"
#include "PmHeader.h"
#include "TileSink.h"
#include "ZrCompactFile.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::string;
using Name = PelmUnicodeString;
using Zarn::ZrByteArray, Zarn::ZrCompactFile;

struct Kind {
  const char* name;
  bool named, big, secret, versions;
  unsigned int formatVersion;
};
constexpr bool kBig = std::endian::native == std::endian::big;
constexpr unsigned int kNow = 20120214, kOlder = 20111111;
constexpr Kind kKinds[] = {
    {"grid", false, kBig, false, true, kNow},
    {"grid-foreign", false, !kBig, false, true, kNow},
    {"grid-secret", false, kBig, true, true, kNow},
    {"grid-without-versions", false, kBig, false, false, kNow},
    {"names", true, kBig, false, true, kNow},
    {"names-foreign", true, !kBig, false, true, kNow},
    {"names-secret", true, kBig, true, true, kNow},
    {"names-without-versions", true, kBig, false, false, kNow},
    {"names-older", true, kBig, false, true, kOlder},
    {"names-older-foreign", true, !kBig, false, true, kOlder},
};

Bytes ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const fs::path& path, const Bytes& bytes) {
  fs::create_directories(path.parent_path());
  if (!(std::ofstream(path, std::ios::binary) << bytes)) throw std::runtime_error(path.string());
}

void Expect(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

// A file without tiles, by hand: the library makes none in the other byte order.
Bytes MakeEmpty(const Kind& kind) {
  Bytes file = {'C', 'F', static_cast<char>(kind.big)};
  const auto put = [&](unsigned long long value, unsigned int width) {
    for (unsigned int i = 0; i < width; ++i)
      file += static_cast<char>(value >> 8 * (kind.big ? width - 1 - i : i));
  };
  put(kind.formatVersion, 4), put(kind.named, 4), put(0, 8), put(64, 8);
  file.resize(64);
  if (kind.named)
    put(4, 8), put(0, 8), put(0, 8), put(0, 8), put(1, 4), file.resize(file.size() + 4 * 16);
  else
    put(3, 4), put(5, 4), put(1, 4), file.resize(file.size() + 3 * 5 * 8);
  return file;
}

// Versions in any order, pieces, slack, removed tiles and versions; names of one hash, and more of
// them than the index had room for.
void Fill(ZrCompactFile& file, bool named) {
  const Name names[] = {u"1yeg98dgy", u"sm38f3s71", u"fqecng9yn", u"f1qe6747c",
                        u"a",         u"caf\u00E9", u"b",         u"c"};
  const auto store = [&](unsigned int tile, std::size_t size, unsigned long long stamp,
                         unsigned long long capacity = 0, unsigned long long offset = 0) {
    const Bytes text(size, static_cast<char>('a' + tile));
    const ZrByteArray data(text.data(), size);
    Expect((named ? file.SetAt(names[tile], data, capacity, offset, stamp)
                  : file.SetAt(tile / 3, tile % 3, data, capacity, offset, stamp)) == 0,
           "store");
  };
  const auto remove = [&](unsigned int tile, unsigned long long stamp) {
    Expect((named ? file.Remove(names[tile], stamp) : file.Remove(tile / 3, tile % 3, stamp)) == 0,
           "remove");
  };
  for (unsigned int tile = 0; tile < 8; ++tile)
    store(tile, 5 + tile, 3);
  for (const unsigned long long stamp : {5ULL, 1ULL, 4ULL, 7ULL, 5ULL})
    store(1, 10 + stamp, stamp);
  store(2, 4, 3, 20, 8);
  store(2, 4, 6, 20, 16);
  store(3, 2, 3);
  store(4, 30, 8, 300, 100);
  remove(1, 4);
  remove(2, 6);
  remove(7, 3);
}

Bytes Reopened(const fs::path& path, const Kind& kind, bool compact) {
  const Name name = Name::FromUtf8(path.string());
  ZrCompactFile file;
  Expect(file.Open(name, kind.secret && compact ? u"secret" : u"", 4) == 0, "open");
  if (compact) {
    Expect(file.Compact() == 0, "compact");
  } else {
    Fill(file, kind.named);
    if (kind.secret) Expect(file.SetPassword(u"secret") == 1, "password");
  }
  return ReadFile(path);
}

Bytes Random(std::minstd_rand& random, std::size_t count) {
  Bytes bytes;
  for (std::size_t i = 0; i < count; ++i)
    bytes += static_cast<char>(random() % 8 == 0 ? random() : random() % 20);
  return bytes;
}

// See Split in Harness.h.
Bytes WithCommands(const Bytes& file, const Bytes& commands) {
  return file + commands + static_cast<char>(commands.size());
}

// Operations of engine_fuzz; `kinds` are the first so many.
Bytes EngineCommands(bool secret, unsigned int kinds, std::minstd_rand& random) {
  Bytes commands(1, static_cast<char>((random() % 8) << 2 | secret));
  for (int i = 0; i < 24; ++i)
    (commands += static_cast<char>(random() % kinds)) += Random(random, 8);
  return commands;
}

// An archive with a directory within another and one in the root directory, not compressed; and one
// as this project writes it.
void WritePmTiles(const fs::path& folder) {
  using namespace Formats;
  const Bytes leaf =
      EncodeDirectory(std::vector<PmEntry>{{1, 0, 5, 2}, {4, 5, 4, 1}, {5, 0, 5, 9}});
  const auto length = static_cast<std::uint32_t>(leaf.size());
  const Bytes outer = EncodeDirectory(std::vector<PmEntry>{{1, 0, length, 0}, {400, 0, 9, 70000}});
  const auto outerLength = static_cast<std::uint32_t>(outer.size());
  const Bytes root =
      EncodeDirectory(std::vector<PmEntry>{{0, 9, 1, 1}, {1, length, outerLength, 0}});
  const Bytes json = R"({"name":"Seed","vector_layers":[{"id":"a"}],"count":7})";
  PmHeader header;
  header.internalCompression = PmCompression::kNone;
  header.root = {kPmHeaderSize, root.size()};
  header.metadata = {header.root.offset + root.size(), json.size()};
  header.leaves = {header.metadata.offset + json.size(), leaf.size() + outer.size()};
  header.tiles = {header.leaves.offset + header.leaves.length, 10};
  header.maxZoom = 9;
  const auto start = EncodeHeader(header);
  WriteFile(folder / "plain.pmtiles",
            Bytes(start.begin(), start.end()) + root + json + leaf + outer + "0123456789");
  const auto sink = CreateSink(folder / "gzip.pmtiles");
  for (std::uint32_t i = 0; i < 64; ++i)
    sink->Put({3, i % 8, i / 8}, Bytes(1 + i % 5, 'x'));
  sink->Finish();
}

}  // namespace

int main(int argc, char** argv) try {
  Expect(argc == 2, "make_seeds FOLDER");
  const fs::path folder = argv[1];
  fs::remove_all(folder);
  WritePmTiles(folder / "pmtiles_fuzz");
  std::minstd_rand random;
  for (const Kind& kind : kKinds) {
    const auto flag = static_cast<char>(kind.secret);
    const fs::path path = folder / "t.cf";
    WriteFile(path, MakeEmpty(kind));
    Bytes file = Reopened(path, kind, false);
    const Bytes compacted = Reopened(path, kind, true);
    fs::remove(path);
    // What the flags are is known: 1, little-endian or big-endian, where the index begins.
    if (!kind.versions) {
      const std::size_t index = static_cast<unsigned char>(file[kind.big ? 26 : 19]) +
                                256U * static_cast<unsigned char>(file[kind.big ? 25 : 20]);
      file[index + (kind.named ? 32 : 8) + (kind.big ? 3 : 0)] = 0;
    }
    const auto write = [&](const char* target, const char* suffix, const Bytes& input) {
      WriteFile(folder / target / (kind.name + Bytes(suffix)), input);
    };
    write("engine_fuzz", "-1", WithCommands(file, EngineCommands(kind.secret, 7, random)));
    write("engine_fuzz", "-2", WithCommands(file, EngineCommands(kind.secret, 9, random)));
    write("engine_fuzz", "-3", WithCommands(file, EngineCommands(kind.secret, 12, random)));
    write("compact_fuzz", "", WithCommands(file, {flag}));
    write("compact_fuzz", "-locked", WithCommands(file, {static_cast<char>(flag | 8)}));
    for (const int flags : {0, 2, 4, 6, 6 + 8, 6 + 16, 6 + 32, 32})
      write("recovery_fuzz", ("-" + std::to_string(flags)).c_str(),
            WithCommands(file + compacted,
                         {static_cast<char>(flag | flags), static_cast<char>(file.size() & 255),
                          static_cast<char>(file.size() >> 8)}));
    if (kind.named) continue;
    write("reader_fuzz", "", WithCommands(file, Bytes{static_cast<char>(flag | 2)} + "\x03\x05"));
    write("reader_fuzz", "-compacted", WithCommands(compacted, {flag}));
    write("writer_fuzz", "", static_cast<char>(8 | flag) + WithCommands(file, Random(random, 100)));
    write("writer_fuzz", "-made",
          static_cast<char>(flag | kind.big << 1 | !kind.versions << 2) + Random(random, 150));
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "make_seeds: %s\n", error.what());
  return 1;
}
