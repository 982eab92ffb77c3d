// Every operation, cut short wherever that can happen: by a kill at each system call, and by the
// failure of each system call and of each request for memory.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <new>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ZrCompactFileReader.h"
#include "ZrCompactFileStub.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"
#include "ZrTileCursor.h"
#include "engine/EngineFixture.h"
#include "support/Processes.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Name = PelmUnicodeString;
using Mode = ZrCompactFile::ZrOpenMode;

constexpr std::uint64_t kPage = 4096;
constexpr unsigned int kColumns = 600;
constexpr unsigned int kStraddling = 502;  // the cell whose entry is half in the next page
constexpr Mode kCreate = ZrCompactFile::kCreateMissing;
constexpr Mode kLocked = kCreate | ZrCompactFile::kProcessLock;
constexpr Mode kMapped = kCreate | ZrCompactFile::kMapped;

// With a sanitizer all takes long, and one in so many is enough to find what it looks for.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStep = 4;
#else
constexpr std::size_t kStep = 1;
#endif

// How a file lies on pages, between which a kill may stop a write.
struct Layout {
  const char* name;
  bool isNaming;
  bool isForeign;  // in the other byte order
  bool isOlder;    // naming files: of the older version
  Mode mode;
  unsigned int tile;    // the one that operations work on
  std::size_t size;     // of most payloads
  std::uint64_t start;  // where in a page the records of that tile begin
  std::uint64_t index;  // naming files: where in a page the index begins; 0: at the file's 64

  // The tiles 0 and 2 have names of one hash.
  Subject At(unsigned int number) const {
    if (!isNaming) return {0, number};
    if (number == 0) return u"1yeg98dgy";
    return number == 2 ? Name(u"sm38f3s71") : Name::FromUtf8("tile" + std::to_string(number));
  }
};

// Of what spans two pages, one byte is in the first: the position of the second version in a table,
// that of a slot, or the number of names; four of a cell's entry and of a record's length.
const Layout kLayouts[] = {
    {"Grid", false, false, false, kLocked, 1, 300, 100, 0},
    {"GridOnEdges", false, false, false, kCreate, kStraddling, 300, kPage - 37, 0},
    {"ForeignGridOfLargeTiles", false, true, false, kMapped, kStraddling, 5000, kPage - 4, 0},
    {"Names", true, false, false, kLocked, 1, 300, 100, 0},
    {"NamesOnEdges", true, false, false, kCreate, 2, 300, kPage - 63, kPage - 101},
    {"LargeTilesByOlderName", true, true, true, kMapped, 2, 5000, 100, kPage - 9},
};

enum Size { kHalf, kSmaller, kSame, kGrown, kLarger, kTenth };

// One file open, with all that operations need: they ask for no memory but the library's.
struct Bench {
  Bench(const Layout& itsLayout, const Name& itsPath) : layout(itsLayout), path(itsPath) {
    const std::size_t all = layout.size;
    for (const std::size_t size : {all / 2, all * 2 / 3, all, all + 16, all * 2, all / 10})
      data.push_back(Data(std::string(size, 'n')));
    for (const unsigned int stored : {tile, tile + 1, 5U, 6U}) {
      cells.push_back({0, stored, &data[stored % 4], 0, 0, 4});
      names.push_back({layout.At(stored).name, &data[stored % 4], 0, 0, 4});
    }
  }

  // For what is there beforehand: each version has a letter of its own.
  void FillPageUpTo(std::uint64_t inPage) {
    const std::string native = path.ToUtf8();
    const std::uint64_t end = std::filesystem::file_size(native);
    std::filesystem::resize_file(native, end + (inPage + kPage - end % kPage) % kPage);
  }
  void Prepare(unsigned int other, unsigned long long version, std::size_t size,
               unsigned long long capacity = 0, unsigned long long offset = 0) {
    if (other == layout.tile) FillPageUpTo(layout.start);
    const std::string text(size, static_cast<char>('a' + static_cast<int>(version)));
    ASSERT_EQ(StoreTile(file, layout.At(other), Data(text), version, capacity, offset), 0U);
  }

  const Layout& layout;
  const Name path;
  const unsigned int tile = layout.tile;
  const Subject at = layout.At(tile);
  ZrCompactFile file;
  std::vector<ZrByteArray> data;  // by Size
  std::vector<ZrCompactFile::ZrCellStore> cells;
  std::vector<ZrCompactFile::ZrNameStore> names;
  std::vector<unsigned int> results;
  ZrByteArray read;
  PelmArray<Name> list;
  std::vector<ZrVersion> versions;
  ZrCompactFileWriter writer;
  ZrCompactFileReader reader;
  ZrCompactFileStub stub;
  Name stubPath;  // given away by each call
  const Name source = u"/etc/passwd";
};

void NoTile(Bench&) {}
void OneVersion(Bench& bench) { bench.Prepare(bench.tile, 4, bench.layout.size); }
void ThreeVersions(Bench& bench) {
  for (const auto version : {2ULL, 4ULL, 8ULL})
    bench.Prepare(bench.tile, version, bench.layout.size);
}
// And of the other tiles one that stays when all smaller stamps go.
void OldAndNewVersions(Bench& bench) {
  bench.Prepare(0, 9, 10);
  bench.Prepare(kStraddling + 1, 9, 10);
  ThreeVersions(bench);
}
void FirstHalf(Bench& bench) {
  bench.Prepare(bench.tile, 4, bench.layout.size / 2, bench.layout.size);
}
void SecondHalf(Bench& bench) {
  const std::size_t half = bench.layout.size / 2;
  bench.Prepare(bench.tile, 4, half, 2 * half, half);
}
void BothHalves(Bench& bench) {
  SecondHalf(bench);
  const std::size_t half = bench.layout.size / 2;
  bench.Prepare(bench.tile, 4, half, 2 * half);
}
void FullIndex(Bench& bench) {
  unsigned int capacity = 1, count = 0;
  for (unsigned int tile = 10; count < capacity; ++tile) {
    bench.Prepare(tile, 1, 10);
    bench.file.GetIndexInfo(capacity, count);
  }
}
// The table of names in memory is to become a larger one.
void TenNames(Bench& bench) {
  unsigned int capacity, count = 0;
  for (unsigned int tile = 10; count < 10; ++tile) {
    bench.Prepare(tile, 1, 10);
    bench.file.GetIndexInfo(capacity, count);
  }
}
// And where light writers write: others, each in the room that the one before has reserved.
void VersionsAndCrowd(Bench& bench) {
  ThreeVersions(bench);
  if (bench.layout.isNaming || bench.layout.isForeign) return;
  const std::string native = bench.path.ToUtf8();
  bench.file.Close();
  ASSERT_EQ(bench.writer.Open(bench.path, u"", kCreate), 0U);
  for (const unsigned int tile : {5U, 6U, bench.tile + 1}) {
    ZrCompactFile::ZrStatus status;
    const auto at = bench.writer.WriteDataToFile(status, bench.data[kHalf], 9000, 0, 4,
                                                 std::filesystem::file_size(native));
    ASSERT_TRUE(bench.writer.WriteIndexValue(0, tile, 1ULL << 56 | at));
  }
  bench.writer.Close();
  std::filesystem::resize_file(native, std::filesystem::file_size(native) + 9000);
}
// The next name carries into the second byte of the count, which lies in the next page.
void Names255(Bench& bench) {
  ASSERT_EQ(bench.file.Create(bench.path, 200ULL, u"", ZrCompactFile::kReplace), 0U);
  for (unsigned int tile = 300; tile < 555; ++tile) {
    if (tile == 500) bench.FillPageUpTo(kPage - 9);
    bench.Prepare(tile, 1, 10);
  }
}

enum Trait : unsigned int {
  kNamingOnly = 1,
  kLight = 2,       // of the light classes, which know only grids of this host's byte order
  kReads = 4,       // changes nothing
  kOpens = 8,       // comes to no open file
  kMakes = 16,      // nor to a file
  kManyTiles = 32,  // each of which is stored or not
  // Stores bytes that were nobody's before. A kill may come between them and the status.
  kStoresPiece = 64,
  kMayBeDone = 128,  // also where the answer is a failure
  kGoesOn = 256,     // by the object that has prepared the file
  kInHeader = 512,   // writes into the header, where no limit cuts a file short
  kReserved = 1024,  // beside tiles whose rooms are not filled, and may hold others
};

using Run = std::function<unsigned int(Bench&)>;
using Codes = std::set<unsigned int>;

struct Operation {
  const char* name;
  void (*prepare)(Bench& bench);
  Run run;
  unsigned int traits = 0;
  Codes failures = {10};  // that it may answer

  bool Is(Trait trait) const { return (traits & trait) != 0; }
  bool IsFor(const Layout& layout) const {
    return layout.isNaming ? !Is(kLight) : !Is(kNamingOnly) && !(Is(kLight) && layout.isForeign);
  }
};

Run Put(Size size, unsigned long long version) {
  return [=](Bench& b) { return StoreTile(b.file, b.at, b.data[size], version); };
}
// One that ends where a tile of the usual size does, or where such a part of it does.
Run PutPiece(Size size, unsigned long long version, unsigned int part = 1) {
  return [=](Bench& b) {
    const unsigned long long all = b.layout.size, end = all / part;
    return StoreTile(b.file, b.at, b.data[size], version, all, end - b.data[size].GetSize());
  };
}
Run Remove(unsigned long long version) {
  return [=](Bench& b) { return RemoveTile(b.file, b.at, version); };
}
Run LookUp(unsigned long long version) {
  return [=](Bench& b) {
    unsigned long long filled;
    const unsigned int result =
        b.at([&](auto&&... at) { return b.file.Lookup(at..., b.read, filled, version); });
    return result != 0 || *b.read.GetData() == 'a' + version ? result : 99;
  };
}
Run Create(Mode more) {
  return [=](Bench& b) {
    const Mode mode = b.layout.mode | more;
    return b.layout.isNaming ? b.file.Create(b.path, 7ULL, u"", mode)
                             : b.file.Create(b.path, 2U, 3U, u"", mode);
  };
}
Run WriteLightly(Size size) {
  return [=](Bench& b) {
    const unsigned int opened = b.writer.Open(b.path, u"", kCreate);
    return opened != 0 ? opened : b.writer.SetAt(0, b.tile, b.data[size], 0, 0, 4);
  };
}
unsigned int PutSource(Bench& b) {
  return b.at([&](auto&&... at) { return b.file.SetAt(at..., b.source, 4); });
}
unsigned int Open(Bench& b) { return b.file.Open(b.path, u"", b.layout.mode); }
unsigned int StoreBatch(Bench& b) {
  return b.layout.isNaming ? b.file.SetBatch(b.names, b.results)
                           : b.file.SetBatch(b.cells, b.results);
}
unsigned int GetStatus(Bench& b) {
  const unsigned int status = StatusOf(b.file, b.at);
  return status == ZrCompactFile::kComplete ? 0 : status;
}
unsigned int RemoveAll(Bench& b) {
  return b.at([&](auto&&... at) { return b.file.RemoveAll(at...); });
}
unsigned int RemoveOlder(Bench& b) {
  unsigned long long removed = 0;
  return b.file.RemoveOlderThan(8, removed);
}
// What cannot be read is passed over, and counted.
unsigned int Walk(Bench& b) try {
  ZrTileCursor cursor(b.file);
  unsigned int result = 0;
  while ((result = cursor.Next()) == 0)
    if (!cursor.GetPayload(b.read)) return 9;
  return result == 5 && cursor.GetDamagedCount() == 0 ? 0 : result == 5 ? 9 : result;
} catch (const std::bad_alloc&) {
  return 9;
}
unsigned int CountAll(Bench& b) {
  ZrStatistics statistics;
  const unsigned int result = b.file.GetStatistics(statistics, {});
  return result != 0 ? result : statistics.damaged == 0 && statistics.versions > 3 ? 0 : 9;
}
unsigned int ListVersions(Bench& b) {
  const auto result = b.at([&](auto&&... at) { return b.file.GetVersions(at..., b.versions); });
  return result != 0 || b.versions.size() == 3 ? result : 99;
}
unsigned int Verify(Bench& b) {
  ZrCompactFile::ZrVerifySummary summary;
  return b.file.Verify(summary);
}
unsigned int List(Bench& b) { return b.file.GetValidNamingList(b.list) ? 0 : 9; }
unsigned int SetPassword(Bench& b) { return b.file.SetPassword(u"secret") ? 0 : 10; }
unsigned int Compact(Bench& b) { return b.file.Compact(); }
unsigned int CreateLightly(Bench& b) { return b.writer.Create(b.path, 2, 3, u"", kCreate); }
unsigned int LookLightly(Bench& b) {
  unsigned long long filled;
  const unsigned int opened = b.reader.Open(b.path, u"", kCreate);
  return opened != 0 ? opened : b.reader.Lookup(0, b.tile, b.read, filled, 4);
}
unsigned int WriteByStub(Bench& b) {
  b.stub.SetPath(std::move(b.stubPath));
  return b.stub.Write(0, b.tile, b.data[kSame], 0, 0, 4) ? 0 : 10;
}

constexpr unsigned int kPiece = kStoresPiece | kMayBeDone, kMissing = kOpens | kMakes,
                       kLightly = kLight | kOpens;
const Codes kOpening = {1, 2, 3, 5, 6}, kWriting = {5, 6, 9, 10};
const Operation kCompact = {"compact", VersionsAndCrowd, Compact, kReserved, {1, 2, 9, 10}};
const Operation kOperations[] = {
    {"new", NoTile, Put(kSame, 4)},
    {"new, a piece", NoTile, PutPiece(kHalf, 4)},
    {"new, from a file", NoTile, PutSource},
    {"newest", ThreeVersions, Put(kSame, 9)},
    {"newest, a piece", ThreeVersions, PutPiece(kHalf, 9, 2)},
    {"older", ThreeVersions, Put(kSame, 3)},
    {"newest again", ThreeVersions, Put(kSame, 8)},
    {"newest again, smaller", ThreeVersions, Put(kSmaller, 8)},
    {"newest again, larger", ThreeVersions, Put(kLarger, 8)},
    {"newest again, a piece", ThreeVersions, PutPiece(kHalf, 8)},
    {"older again", ThreeVersions, Put(kSame, 4)},
    {"older again, smaller", ThreeVersions, Put(kSmaller, 4)},
    {"older again, larger", ThreeVersions, Put(kLarger, 4)},
    {"piece in order", FirstHalf, PutPiece(kHalf, 4), kPiece},
    {"piece out of order", SecondHalf, PutPiece(kHalf, 4, 2), kPiece},
    {"piece over another", FirstHalf, PutPiece(kSmaller, 4)},
    {"piece in a gap", SecondHalf, PutPiece(kHalf, 4, 2), kPiece | kGoesOn},
    {"piece amid a gap", SecondHalf, PutPiece(kTenth, 4, 3), kPiece | kGoesOn},
    {"piece in a filled gap", BothHalves, PutPiece(kHalf, 4, 2), kGoesOn},
    {"piece in a gap and beyond", SecondHalf, PutPiece(kSmaller, 4), kGoesOn},
    {"remove newest", ThreeVersions, Remove(8)},
    {"remove older", ThreeVersions, Remove(4)},
    {"remove oldest", ThreeVersions, Remove(2)},
    {"remove only", OneVersion, Remove(4)},
    {"remove all", ThreeVersions, RemoveAll},
    {"remove older than", OldAndNewVersions, RemoveOlder, kMayBeDone, {9, 10}},
    {"grow the index", FullIndex, Put(kSame, 4), kNamingOnly},
    {"256th name", Names255, Put(kSame, 4), kNamingOnly},
    {"larger table", TenNames, Put(kSame, 4), kNamingOnly | kGoesOn},
    {"batch", OneVersion, StoreBatch, kManyTiles},
    {"password", OneVersion, SetPassword, kInHeader},
    kCompact,
    {"create", NoTile, Create(0), kMissing, {2}},
    {"create anew", OneVersion, Create(ZrCompactFile::kReplace), kOpens, {2}},
    {"open a missing file", NoTile, Open, kNamingOnly | kMissing | kMayBeDone, kOpening},
    {"open", OneVersion, Open, kOpens | kReads, kOpening},
    {"close", OneVersion, [](Bench& b) { return b.file.Close() ? 0U : 10U; }, kReads, {}},
    {"flush", OneVersion, [](Bench& b) { return b.file.Flush() ? 0U : 10U; }, kReads},
    {"look up", ThreeVersions, LookUp(8), kReads, {9}},
    {"look up an older version", ThreeVersions, LookUp(2), kReads, {9}},
    {"walk", ThreeVersions, Walk, kReads, {9}},
    {"count", ThreeVersions, CountAll, kReads, {1, 9}},
    {"verify", ThreeVersions, Verify, kReads, {1, 9}},
    {"status", OneVersion, GetStatus, kReads, {4}},
    {"list", OneVersion, List, kNamingOnly | kReads, {9}},
    {"list versions", ThreeVersions, ListVersions, kReads, {9}},
    {"writer: create", NoTile, CreateLightly, kLight | kMissing, {1, 2}},
    {"writer: new", NoTile, WriteLightly(kSame), kLightly, kWriting},
    {"writer: elsewhere", OneVersion, WriteLightly(kLarger), kLightly | kMayBeDone, kWriting},
    {"writer: in place", OneVersion, WriteLightly(kSmaller), kLightly, kWriting},
    {"writer: in place, longer", OneVersion, WriteLightly(kGrown), kLightly, kWriting},
    {"reader", OneVersion, LookLightly, kLightly | kReads, kWriting},
    {"stub", NoTile, WriteByStub, kLightly},
};

// What goes wrong, at one call or request for memory after the other.
struct Fault {
  const char* name;
  int error;  // ENOMEM: of a request; 0: a kill
  SyscallFaults::Extent extent;

  bool IsHarmless() const { return error == EINTR || error == SyscallFaults::kShort; }
};
constexpr auto kOnce = SyscallFaults::kOnce, kForGood = SyscallFaults::kFromThenOn;
const Fault kFaults[] = {
    {"kill", 0, kOnce},
    {"EIO", EIO, kOnce},
    {"EIO for good", EIO, kForGood},
    {"EINVAL", EINVAL, kOnce},
    {"cut short", SyscallFaults::kCutShort, kOnce},
    {"ENOSPC for good", ENOSPC, kForGood},
    {"EINTR", EINTR, kOnce},
    {"short for good", SyscallFaults::kShort, kForGood},
    {"no memory", ENOMEM, kOnce},
    {"no memory for good", ENOMEM, kForGood},
};

// Each tile by itself, the one that is worked on first; then what is said of the whole file.
using State = std::vector<std::string>;
constexpr std::size_t kTiles = 6;

class Survival : public EngineTest, public ::testing::WithParamInterface<Layout> {
 public:
  Survival() : EngineTest(TemporaryFolder::kMemory) {}

  // Makes the file for an operation, and learns what it is before and after.
  void Prepare(const Operation& operation) {
    PutBack({});
    if (!operation.Is(kMakes)) MakeFile(operation);
    m_before = Support::ReadFile(path);
    m_old = ReadState(operation, true);
    Bench bench(layout, path);
    Start(operation, bench);
    if (operation.Is(kGoesOn)) {
      m_old = ReadState(operation, bench.file, true);
      m_old.emplace_back();
    }
    ASSERT_EQ(operation.run(bench), 0U);
    bench.file.Close();
    EXPECT_EQ(folder.CountFiles(), 1U) << "left over";
    m_new = ReadState(operation, false);
  }
  void MakeFile(const Operation& operation) {
    if (layout.isNaming)
      MakeNaming(layout.index == 0 ? 8 : 3, layout.isForeign, layout.isOlder ? 20111111 : 20120214);
    else
      MakeGrid(1, kColumns, layout.isForeign);
    object.Close();
    Bench bench(layout, path);
    ASSERT_EQ(bench.file.Open(path, u"", kCreate), 0U);
    bench.Prepare(0, 1, 10);
    if (layout.index != 0) {
      bench.Prepare(100, 1, 10);
      bench.Prepare(101, 1, 10);  // now the index is full
      bench.FillPageUpTo(layout.index);
    }
    bench.Prepare(kStraddling + 1, 1, 10);
    if (!operation.Is(kGoesOn)) operation.prepare(bench);
  }
  void PutBack(const Support::Bytes& bytes) {
    for (const auto& entry : std::filesystem::directory_iterator(folder.GetFolder()))
      std::filesystem::remove(entry.path());
    if (!bytes.empty()) Support::WriteFile(path, bytes);
  }
  // Where the file is mapped another thread opens it, so the operation is the first of its own.
  void Start(const Operation& operation, Bench& bench) {
    bench.stubPath = path;
    if (operation.Is(kOpens) || bench.file.IsOpen()) return;
    const auto open = [&] {
      ASSERT_TRUE(Open(bench) == 0 || bench.file.Open(path, u"secret", layout.mode) == 0);
    };
    if (layout.mode == kMapped)
      std::thread(open).join();
    else
      open();
    if (operation.Is(kGoesOn)) operation.prepare(bench);
  }

  // A payload as runs of equal bytes. Before a piece is stored, its bytes are anything; and so are
  // those that were reserved.
  static std::string Describe(Tile tile, const Operation& operation, bool isBefore) {
    std::string text = ", " + std::to_string(tile.result) + "/" + std::to_string(tile.filled);
    std::string& bytes = tile.payload;
    if (operation.Is(kStoresPiece) && isBefore) std::replace(bytes.begin(), bytes.end(), 'n', '\0');
    if (operation.Is(kReserved)) bytes.resize(std::min<std::size_t>(bytes.size(), tile.filled));
    for (std::size_t i = 0, end; i < bytes.size(); i = end) {
      end = std::min(bytes.find_first_not_of(bytes[i], i), bytes.size());
      text += " " + std::to_string(end - i) + (bytes[i] == 0 ? '0' : bytes[i]);
    }
    return text;
  }
  // What an object knows of the file and finds in it.
  State ReadState(const Operation& operation, ZrCompactFile& file, bool isBefore) const {
    State state;
    for (const unsigned int tile : {layout.tile, layout.tile + 1, 5U, 6U, 0U, kStraddling + 1}) {
      const Subject at = layout.At(tile);
      state.push_back(operation.Is(kStoresPiece) ? "" : std::to_string(StatusOf(file, at)));
      for (const unsigned long long version : {4ULL, 2ULL, 3ULL, 8ULL, 9ULL})
        if (tile == layout.tile || version == 4)
          state.back() += Describe(ReadTile(file, at, version), operation, isBefore);
    }
    unsigned int first = 0, count = 0;
    const unsigned int kind = file.GetIndexInfo(first, count);
    state.push_back(std::to_string(kind == 0 ? first : 0) + " " + std::to_string(count));
    return state;
  }
  // As whoever comes next finds it, in a file that is sound; and the password.
  State ReadState(const Operation& operation, bool isBefore) {
    if (!ZrFile::IsExist(path)) return {"no file"};
    ZrCompactFile file;
    const bool isPlain = file.Open(path, u"", layout.mode) == 0;
    if (!isPlain) {
      EXPECT_EQ(file.Open(path, u"secret", layout.mode), 0U);
    }
    State state = ReadState(operation, file, isBefore);
    ZrCompactFile::ZrVerifySummary summary;
    EXPECT_EQ(file.Verify(summary), 0U);
    state.push_back(isPlain ? "" : "secret");
    return state;
  }
  // Expects that the operation was done (`mayBeNew`), that it was not, or either; of several
  // stores, that those were done which have succeeded. An object that has the file open knows.
  void ExpectState(const Operation& operation, const std::vector<unsigned int>& results,
                   bool mayBeOld, bool mayBeNew, ZrCompactFile& file) {
    const bool isSame = operation.Is(kReads) && Support::ReadFile(path) == m_before;
    State now = isSame ? m_new : ReadState(operation, false);
    if (file.IsOpen() && now.size() > kTiles) {
      const State seen = ReadState(operation, file, false);
      EXPECT_EQ(seen, State(now.begin(), now.end() - 1));
    }
    if (now == m_new && mayBeNew) return;
    if (mayBeOld) now = ReadState(operation, true);
    if (!mayBeOld) {
      EXPECT_EQ(now, m_new);
    } else if (!operation.Is(kManyTiles)) {
      EXPECT_EQ(now, m_old) << (mayBeNew ? "nor is it " + ::testing::PrintToString(m_new) : "");
    } else {
      for (std::size_t i = 0; i < kTiles; ++i) {
        const bool isKnown = i < results.size(), isStored = isKnown && results[i] == 0;
        EXPECT_TRUE((now[i] == m_new[i] && (mayBeNew || !isKnown || isStored)) ||
                    (now[i] == m_old[i] && !isStored))
            << i << " " << now[i];
      }
    }
  }
  // It can be done, again or after all.
  void ExpectGoesOn(const Operation& operation, Bench& bench) {
    if (operation.Is(kMakes)) PutBack({});
    Start(operation, bench);
    EXPECT_EQ(operation.run(bench), 0U);
    ExpectState(operation, {}, false, true, bench.file);
    EXPECT_FALSE(ZrFile::IsExist(folder.GetPath(".$t.cf")));
  }

  // Kills an operation at its n-th call, at one boundary after the other. False if it makes fewer.
  bool IsKilled(const Operation& operation, std::size_t n) {
    for (std::size_t boundary = 0;; ++boundary) {
      PutBack(m_before);
      ZrCompactFile other;  // which the change of a password would shut out
      if (layout.mode == kLocked && !operation.Is(kMakes) && m_new.back().empty())
        other.Open(path, u"", kLocked);
      const Support::Child child([&] {
        Bench bench(layout, path);
        Start(operation, bench);
        SyscallFaults faults;
        faults.KillAtCall(n, boundary);
        return operation.run(bench) == 0;
      });
      const int end = child.Wait(WEXITED);
      if (end != SIGKILL) return end == SyscallFaults::kNoBoundary;
      ExpectState(operation, {}, true, true, other);
      Bench bench(layout, path);
      ExpectGoesOn(operation, bench);
    }
  }

  // Runs an operation whose n-th call or request meets the fault. False if it makes fewer.
  bool MeetsFault(const Operation& operation, const Fault& fault, std::size_t n) {
    PutBack(m_before);
    Bench bench(layout, path);
    Start(operation, bench);
    unsigned int result = 1000;  // thrown
    bool isMet = false;
    try {
      SyscallFaults faults;
      faults.FailCall(n, fault.error, fault.extent);
      result = operation.run(bench);
      isMet = faults.HasFailed();
    } catch (const std::bad_alloc&) {
    }
    const bool isForGood = fault.extent == kForGood;
    EXPECT_TRUE(result == 0 || (!fault.IsHarmless() && operation.failures.count(result) == 1))
        << result;
    EXPECT_FALSE(bench.file.IsDeadLocked());
    if (operation.Is(kOpens) && result != 0 && !isForGood) {
      EXPECT_EQ(folder.CountFiles(), ZrFile::IsExist(path) ? 1U : 0U) << "left over";
    }
    // Where nothing works any more, what was done cannot be undone.
    const bool mayBeDone = result == 0 || isForGood || operation.Is(kMayBeDone);
    ExpectState(operation, bench.results, result != 0, mayBeDone, bench.file);
    if (result != 0) ExpectGoesOn(operation, bench);
    return isMet;
  }

  const Layout& layout = GetParam();
  Support::Bytes m_before;
  State m_old, m_new;
};
INSTANTIATE_TEST_SUITE_P(Engine, Survival, ::testing::ValuesIn(kLayouts),
                         [](const auto& param) { return param.param.name; });

TEST_P(Survival, AnOperationCutShortAnywhereIsDoneOrNot) {
  std::size_t sweeps = 0;
  for (const Operation& operation : kOperations) {
    if (!operation.IsFor(layout)) continue;
    SCOPED_TRACE(operation.name);
    ASSERT_NO_FATAL_FAILURE(Prepare(operation));
    const std::size_t descriptors = CountOpenDescriptors();
    for (const Fault& fault : kFaults) {
      bool isMet = fault.error != 0 || !operation.Is(kReads);
      if (operation.Is(kInHeader) && fault.error == SyscallFaults::kCutShort) continue;
      for (std::size_t n = 1 + ++sweeps % kStep; isMet && !HasFailure(); n += kStep) {
        SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(n));
        isMet = fault.error == 0 ? IsKilled(operation, n) : MeetsFault(operation, fault, n);
        EXPECT_LE(CountOpenDescriptors(), descriptors);
      }
    }
  }
}

// It goes at any moment of a compaction, or of one that finishes what another one has begun, and
// takes any part of what was not synced with it.
TEST_P(Survival, ACompactionLosesNothingWithoutPower) {
  ASSERT_NO_FATAL_FAILURE(Prepare(kCompact));
  std::mt19937 random(1);
  for (const auto extent : {kOnce, kForGood}) {
    bool isMet = true;
    for (std::size_t n = 1; isMet && !HasFailure(); n += kStep) {
      SCOPED_TRACE(n);
      PutBack(m_before);
      SyscallFaults power(folder.GetFolder().string());
      for (const std::size_t failing : {n, std::size_t{0}}) {
        Bench bench(layout, path);
        Start(kCompact, bench);
        power.FailCall(failing, EIO, extent);
        kCompact.run(bench);
        if (failing != 0) isMet = power.HasFailed();
        power.FailCall(0, 0);
      }
      const std::size_t steps = power.CountSteps();
      for (unsigned int loss = 0; loss < 12; ++loss) {
        power.Leave(random() % (steps + 1), [&] { return random() % 4 < loss % 5; });
        ZrCompactFile none;
        ExpectState(kCompact, {}, true, true, none);
      }
    }
  }
}

}  // namespace
}  // namespace Zarn
