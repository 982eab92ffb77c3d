#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <new>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZrCompactFileReader.h"
#include "ZrCompactFileStub.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/LibcFaults.h"
#include "support/Processes.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

// Every operation, cut short wherever that can happen: by a kill at each system call, and by the
// failure of each system call and of each request for memory.

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
  Mode mode;
  unsigned int tile;    // the one that operations work on
  std::size_t size;     // of most payloads
  std::uint64_t start;  // where in a page the records of that tile begin
  std::uint64_t index;  // naming files: where in a page the index begins; 0: at the file's 64

  friend std::ostream& operator<<(std::ostream& out, const Layout& layout) {
    return out << layout.name;
  }
};

// Of what spans two pages, one byte is in the first: the position of the second version in a table,
// that of a slot, or the number of names; four of a cell's entry and of a record's length.
const Layout kLayouts[] = {
    {"Grid", false, false, kLocked, 1, 300, 100, 0},
    {"GridOnEdges", false, false, kCreate, kStraddling, 300, kPage - 37, 0},
    {"ForeignGridOfLargeTiles", false, true, kMapped, kStraddling, 5000, kPage - 4, 0},
    {"Names", true, false, kLocked, 1, 300, 100, 0},
    {"NamesOnEdges", true, false, kCreate, 2, 300, kPage - 63, kPage - 101},
    {"LargeTilesByName", true, false, kCreate, 2, 5000, 100, kPage - 9},
};

enum Size { kHalf, kSmaller, kSame, kLarger };

// One file open, with all that operations need: they ask for no memory but the library's.
struct Bench {
  Bench(const Layout& itsLayout, const Name& itsPath) : layout(itsLayout), path(itsPath) {
    for (const auto& [size, sixths] : {std::pair{kHalf, 3U}, {kSmaller, 4U}, {kSame, 6U}})
      data[size] = Data(std::string(layout.size * sixths / 6, 'n'));
    data[kLarger] = Data(std::string(layout.size * 2, 'n'));
    for (const unsigned int stored : {layout.tile, layout.tile + 1, 5U, 6U}) {
      cells.push_back({0, stored, &data[stored % 4], 0, 0, 4});
      names.push_back({NameOf(stored), &data[stored % 4], 0, 0, 4});
    }
  }

  // The tiles 0 and 2 have names of one hash.
  static Name NameOf(unsigned int tile) {
    if (tile == 0) return u"1yeg98dgy";
    return tile == 2 ? Name(u"sm38f3s71") : Name::FromUtf8("tile" + std::to_string(tile));
  }
  unsigned int Put(const Name& name, unsigned int tile, const ZrByteArray& tileData,
                   unsigned long long version, unsigned long long capacity,
                   unsigned long long offset) {
    return layout.isNaming ? file.SetAt(name, tileData, capacity, offset, version)
                           : file.SetAt(0, tile, tileData, capacity, offset, version);
  }
  unsigned int Put(Size size, unsigned long long version) {
    return Put(key, layout.tile, data[size], version, 0, 0);
  }
  // A piece of the usual size: the first half of it, or the second.
  unsigned int PutHalf(unsigned int half, unsigned long long version) {
    return Put(key, layout.tile, data[kHalf], version, layout.size, half * layout.size / 2);
  }
  unsigned int PutBatch() {
    return layout.isNaming ? file.SetBatch(names, results) : file.SetBatch(cells, results);
  }
  unsigned int Remove(unsigned long long version) {
    return layout.isNaming ? file.Remove(key, version) : file.Remove(0, layout.tile, version);
  }
  unsigned int Look(unsigned long long version) {
    unsigned long long filled;
    const unsigned int result = layout.isNaming
                                    ? file.Lookup(key, read, filled, version)
                                    : file.Lookup(0, layout.tile, read, filled, version);
    return result != 0 || (!read.IsEmpty() && *read.GetData() == 'a' + version) ? result : 99;
  }
  unsigned int LookAtStatus() {
    const auto status = layout.isNaming ? file.GetStatus(key) : file.GetStatus(0, layout.tile);
    return status == ZrCompactFile::kComplete ? 0U : unsigned{status};
  }
  unsigned int List() { return file.GetValidNamingList(list) ? 0 : 9; }
  unsigned int Create(Mode more = 0) {
    const Mode mode = layout.mode | more;
    return layout.isNaming ? file.Create(path, 7ULL, u"", mode)
                           : file.Create(path, 2U, 3U, u"", mode);
  }
  unsigned int Open() { return file.Open(path, u"", layout.mode); }
  unsigned int LookLightly() {
    unsigned long long filled;
    const unsigned int opened = reader.Open(path, u"", kCreate);
    return opened != 0 ? opened : reader.Lookup(0, layout.tile, read, filled, 4);
  }
  unsigned int WriteByStub() {
    stub.SetPath(std::move(stubPath));
    return stub.Write(0, layout.tile, data[kSame], 0, 0, 4) ? 0 : 10;
  }
  unsigned int Write(Size size) {
    const unsigned int opened = writer.Open(path, u"", kCreate);
    return opened != 0 ? opened : writer.SetAt(0, layout.tile, data[size], 0, 0, 4);
  }

  // For what is there beforehand: each version has a letter of its own.
  void FillPageUpTo(std::uint64_t inPage) {
    const std::string native = path.ToUtf8();
    const std::uint64_t end = std::filesystem::file_size(native);
    std::filesystem::resize_file(native, end + (inPage + kPage - end % kPage) % kPage);
  }
  void Prepare(unsigned int tile, unsigned long long version, std::size_t size,
               unsigned long long capacity = 0, unsigned long long offset = 0) {
    if (tile == layout.tile) FillPageUpTo(layout.start);
    const std::string text(size, static_cast<char>('a' + static_cast<int>(version)));
    ASSERT_EQ(Put(NameOf(tile), tile, Data(text), version, capacity, offset), 0U);
  }
  void PrepareHalf(unsigned int half) {
    Prepare(layout.tile, 4, layout.size / 2, layout.size, half * layout.size / 2);
  }

  const Layout& layout;
  const Name path;
  const Name key = NameOf(layout.tile);
  ZrCompactFile file;
  std::array<ZrByteArray, 4> data;  // by Size
  std::vector<ZrCompactFile::ZrCellStore> cells;
  std::vector<ZrCompactFile::ZrNameStore> names;
  std::vector<unsigned int> results;
  ZrByteArray read;
  PelmArray<Name> list;
  ZrCompactFileWriter writer;
  ZrCompactFileReader reader;
  ZrCompactFileStub stub;
  Name stubPath;  // given away by each call
};

void NoTile(Bench&) {}
void OneVersion(Bench& bench) { bench.Prepare(bench.layout.tile, 4, bench.layout.size); }
void ThreeVersions(Bench& bench) {
  for (const auto version : {2ULL, 4ULL, 8ULL})
    bench.Prepare(bench.layout.tile, version, bench.layout.size);
}
void FirstHalf(Bench& bench) { bench.PrepareHalf(0); }
void SecondHalf(Bench& bench) { bench.PrepareHalf(1); }
void FullIndex(Bench& bench) {
  unsigned int capacity = 1, count = 0;
  for (unsigned int tile = 10; count < capacity; ++tile) {
    bench.Prepare(tile, 1, 10);
    bench.file.GetIndexInfo(capacity, count);
  }
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
  kLight = 2,         // of the light classes, which know only grids of this host's byte order
  kReads = 4,         // changes nothing
  kOpens = 8,         // comes to no open file
  kMakes = 16,        // nor to a file
  kManyTiles = 32,    // each of which is stored or not
  kStoresHalf0 = 64,  // of a tile that held nothing there; the index may miss its new status
  kStoresHalf1 = 128,
  kMayBeDone = 256,  // also where the answer is a failure
};

struct Operation {
  const char* name;
  void (*prepare)(Bench& bench);
  unsigned int (*run)(Bench& bench);
  unsigned int traits = 0;
  std::set<unsigned int> failures = {10};  // that it may answer

  bool Is(Trait trait) const { return (traits & trait) != 0; }
  bool IsFor(const Layout& layout) const {
    return layout.isNaming ? !Is(kLight) : !Is(kNamingOnly) && !(Is(kLight) && layout.isForeign);
  }
};

const std::set<unsigned int> kOpening = {1, 2, 3, 5, 6}, kWriting = {5, 6, 9, 10},
                             kReading = {5, 6, 9}, kCreating = {1, 2};
const Operation kOperations[] = {
    {"new", NoTile, [](Bench& b) { return b.Put(kSame, 4); }},
    {"new, a piece", NoTile, [](Bench& b) { return b.PutHalf(1, 4); }},
    {"newest", ThreeVersions, [](Bench& b) { return b.Put(kSame, 9); }},
    {"newest, a piece", ThreeVersions, [](Bench& b) { return b.PutHalf(0, 9); }},
    {"older", ThreeVersions, [](Bench& b) { return b.Put(kSame, 3); }},
    {"newest again", ThreeVersions, [](Bench& b) { return b.Put(kSame, 8); }},
    {"newest again, smaller", ThreeVersions, [](Bench& b) { return b.Put(kSmaller, 8); }},
    {"newest again, larger", ThreeVersions, [](Bench& b) { return b.Put(kLarger, 8); }},
    {"newest again, a piece", ThreeVersions, [](Bench& b) { return b.PutHalf(1, 8); }},
    {"older again", ThreeVersions, [](Bench& b) { return b.Put(kSame, 4); }},
    {"older again, smaller", ThreeVersions, [](Bench& b) { return b.Put(kSmaller, 4); }},
    {"older again, larger", ThreeVersions, [](Bench& b) { return b.Put(kLarger, 4); }},
    {"piece in order", FirstHalf, [](Bench& b) { return b.PutHalf(1, 4); },
     kStoresHalf1 | kMayBeDone},
    {"piece out of order", SecondHalf, [](Bench& b) { return b.PutHalf(0, 4); },
     kStoresHalf0 | kMayBeDone},
    {"piece over another", FirstHalf,
     [](Bench& b) {
       const ZrByteArray& piece = b.data[kSmaller];
       return b.Put(b.key, b.layout.tile, piece, 4, b.layout.size, b.layout.size - piece.GetSize());
     }},
    {"remove newest", ThreeVersions, [](Bench& b) { return b.Remove(8); }},
    {"remove older", ThreeVersions, [](Bench& b) { return b.Remove(4); }},
    {"remove oldest", ThreeVersions, [](Bench& b) { return b.Remove(2); }},
    {"remove only", OneVersion, [](Bench& b) { return b.Remove(4); }},
    {"grow the index", FullIndex, [](Bench& b) { return b.Put(kSame, 4); }, kNamingOnly},
    {"256th name", Names255, [](Bench& b) { return b.Put(kSame, 4); }, kNamingOnly},
    {"batch", OneVersion, [](Bench& b) { return b.PutBatch(); }, kManyTiles},
    {"password", OneVersion, [](Bench& b) { return b.file.SetPassword(u"secret") ? 0U : 10U; }},
    {"compact", ThreeVersions, [](Bench& b) { return b.file.Compact(); }, 0, {1, 2, 9, 10}},
    {"create", NoTile, [](Bench& b) { return b.Create(); }, kOpens | kMakes, {2}},
    {"create anew",
     OneVersion,
     [](Bench& b) { return b.Create(ZrCompactFile::kReplace); },
     kOpens,
     {2}},
    {"open a missing file", NoTile, [](Bench& b) { return b.Open(); },
     kNamingOnly | kOpens | kMakes | kMayBeDone, kOpening},
    {"open", OneVersion, [](Bench& b) { return b.Open(); }, kOpens | kReads, kOpening},
    {"close", OneVersion, [](Bench& b) { return b.file.Close() ? 0U : 10U; }, kReads, {}},
    {"flush", OneVersion, [](Bench& b) { return b.file.Flush() ? 0U : 10U; }, kReads},
    {"look up", ThreeVersions, [](Bench& b) { return b.Look(8); }, kReads, {9}},
    {"look up an older version", ThreeVersions, [](Bench& b) { return b.Look(2); }, kReads, {9}},
    {"status", OneVersion, [](Bench& b) { return b.LookAtStatus(); }, kReads, {4}},
    {"list", OneVersion, [](Bench& b) { return b.List(); }, kNamingOnly | kReads, {9}},
    {"writer: create", NoTile, [](Bench& b) { return b.writer.Create(b.path, 2, 3, u"", kCreate); },
     kLight | kOpens | kMakes, kCreating},
    {"writer: new", NoTile, [](Bench& b) { return b.Write(kSame); }, kLight | kOpens, kWriting},
    {"writer: elsewhere", OneVersion, [](Bench& b) { return b.Write(kLarger); },
     kLight | kOpens | kMayBeDone, kWriting},
    {"writer: in place", OneVersion, [](Bench& b) { return b.Write(kSmaller); },
     kLight | kOpens | kMayBeDone, kWriting},
    {"reader", OneVersion, [](Bench& b) { return b.LookLightly(); }, kLight | kOpens | kReads,
     kReading},
    {"stub", NoTile, [](Bench& b) { return b.WriteByStub(); }, kLight | kOpens},
};

// What goes wrong, at one call or request after the other.
struct Fault {
  enum Place { kFile, kMemory, kElsewhere };

  const char* name;
  Place place;
  int error;
  bool isForGood = false;

  bool IsHarmless() const { return error == EINTR || error == SyscallFaults::kShort; }
};

const Fault kFaults[] = {
    {"EIO", Fault::kFile, EIO},
    {"EIO for good", Fault::kFile, EIO, true},
    {"ENOSPC", Fault::kFile, ENOSPC},
    {"ENOSPC for good", Fault::kFile, ENOSPC, true},
    {"EINVAL", Fault::kFile, EINVAL},
    {"EINTR", Fault::kFile, EINTR},
    {"short", Fault::kFile, SyscallFaults::kShort},
    {"short for good", Fault::kFile, SyscallFaults::kShort, true},
    {"cut off", Fault::kFile, SyscallFaults::kCutOff},
    {"cut off for good", Fault::kFile, SyscallFaults::kCutOff, true},
    {"EINTR elsewhere", Fault::kElsewhere, EINTR},
    {"EIO elsewhere", Fault::kElsewhere, EIO},
    {"EIO elsewhere for good", Fault::kElsewhere, EIO, true},
    {"no memory", Fault::kMemory, ENOMEM},
    {"no memory for good", Fault::kMemory, ENOMEM, true},
};

// Each tile by itself, the one that is worked on first; then what is said of the whole file.
using State = std::vector<std::string>;
constexpr std::size_t kTiles = 6;
constexpr unsigned int kThrown = 1000;  // no answer

class Survival : public EngineTest, public ::testing::WithParamInterface<Layout> {
 public:
  Survival() : EngineTest(TemporaryFolder::kMemory) {}
  void SetUp() override {
    ASSERT_EQ(m_another.Create(m_elsewhere.GetPath("a.cf"), 1U, 1U, u"", kLocked), 0U);
  }

  // Makes the file for an operation, and learns what it is before and after.
  void Prepare(const Operation& operation) {
    PutBack({});
    if (!operation.Is(kMakes)) MakeFile(operation);
    m_before = Support::ReadFile(path);
    m_old = ReadState(operation, true);
    Bench bench(layout, path);
    Start(operation, bench);
    {
      const SyscallFaults calls;
      ASSERT_EQ(operation.run(bench), 0U);
      m_boundaries = calls.GetBoundaries();
    }
    bench.file.Close();
    m_new = ReadState(operation, false);
  }
  void MakeFile(const Operation& operation) {
    if (layout.isNaming)
      ASSERT_EQ(object.Create(path, layout.index == 0 ? 8ULL : 3ULL, u"", kCreate), 0U);
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
    operation.prepare(bench);
  }
  void PutBack(const Support::Bytes& bytes) {
    for (const auto& entry : std::filesystem::directory_iterator(folder.GetFolder()))
      std::filesystem::remove(entry.path());
    if (!bytes.empty()) Support::WriteFile(path, bytes);
  }
  // Where the file is mapped another thread opens it, so the operation is the first of its own.
  void Start(const Operation& operation, Bench& bench) {
    bench.stubPath = path;
    if (operation.Is(kOpens)) return;
    const auto open = [&] {
      ASSERT_TRUE(bench.Open() == 0 || bench.file.Open(path, u"secret", layout.mode) == 0);
    };
    if (layout.mode == kMapped)
      std::thread(open).join();
    else
      open();
  }

  // A payload as runs of equal bytes; `unknown` bytes from `from` on are not told.
  static std::string Describe(Tile tile, std::size_t from, std::size_t unknown) {
    std::string text = ", " + std::to_string(tile.result) + "/" + std::to_string(tile.filled);
    std::string& bytes = tile.payload;
    if (from < bytes.size()) bytes.replace(from, unknown, unknown, '?');
    for (std::size_t i = 0, end; i < bytes.size(); i = end) {
      end = std::min(bytes.find_first_not_of(bytes[i], i), bytes.size());
      text += " " + std::to_string(end - i) + (bytes[i] == 0 ? '0' : bytes[i]);
    }
    return text;
  }
  // `beforeHalf`: without the half that the operation stores, which is nobody's before. A kill may
  // come between that and the status.
  std::string ReadTileState(const Operation& operation, ZrCompactFile& file, unsigned int tile,
                            bool beforeHalf) const {
    const Name name = Bench::NameOf(tile);
    const bool storesHalf = operation.Is(kStoresHalf0) || operation.Is(kStoresHalf1);
    const std::size_t half = layout.size / 2;
    const std::size_t unknown = storesHalf && beforeHalf && tile == layout.tile ? half : 0;
    std::string text;
    for (const unsigned long long version : {4ULL, 2ULL, 3ULL, 8ULL, 9ULL})
      if (tile == layout.tile || version == 4)
        text += Describe(
            layout.isNaming ? ReadTile(file, name, version) : ReadTile(file, 0, tile, version),
            operation.Is(kStoresHalf1) ? half : 0, unknown);
    const auto status = layout.isNaming ? file.GetStatus(name) : file.GetStatus(0, tile);
    return storesHalf ? text : std::to_string(status) + text;
  }
  // What an object knows of the file and finds in it.
  State ReadState(const Operation& operation, ZrCompactFile& file, bool beforeHalf) const {
    State state;
    for (const unsigned int tile : {layout.tile, layout.tile + 1, 5U, 6U, 0U, kStraddling + 1})
      state.push_back(ReadTileState(operation, file, tile, beforeHalf));
    unsigned int first = 0, count = 0;
    const unsigned int kind = file.GetIndexInfo(first, count);
    state.push_back(std::to_string(kind == 0 ? first : 0) + " " + std::to_string(count));
    return state;
  }
  // As whoever comes next finds it, in a file that is sound; and the password.
  State ReadState(const Operation& operation, bool beforeHalf) {
    if (!ZrFile::IsExist(path)) return {"no file"};
    ZrCompactFile file;
    const bool isPlain = file.Open(path, u"", layout.mode) == 0;
    if (!isPlain) {
      EXPECT_EQ(file.Open(path, u"secret", layout.mode), 0U);
    }
    State state = ReadState(operation, file, beforeHalf);
    if (!isPlain) file.SetPassword(u"");
    Check();
    if (!isPlain) file.SetPassword(u"secret");
    state.push_back(isPlain ? "" : "secret");
    return state;
  }
  // Expects that the operation was done (`mayBeNew`), that it was not, or either; of several
  // stores, that those were done which have succeeded. An object that has the file open knows.
  void ExpectState(const Operation& operation, const std::vector<unsigned int>& results,
                   bool mayBeOld, bool mayBeNew, ZrCompactFile& file) {
    State now = ReadState(operation, false);
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
        const bool isStored = i < results.size() && results[i] == 0;
        EXPECT_TRUE(now[i] == m_new[i] || (!isStored && now[i] == m_old[i])) << i << " " << now[i];
      }
    }
  }
  // It can be done, again or after all.
  void ExpectGoesOn(const Operation& operation, Bench& bench) {
    if (operation.Is(kMakes)) PutBack({});
    if (!bench.file.IsOpen()) Start(operation, bench);
    bench.stubPath = path;
    EXPECT_EQ(operation.run(bench), 0U);
    ExpectState(operation, {}, false, true, bench.file);
    EXPECT_FALSE(ZrFile::IsExist(folder.GetPath(".$t.cf")));
  }

  void IsKilled(const Operation& operation, std::size_t call, std::size_t boundary) {
    PutBack(m_before);
    ZrCompactFile other;  // which the change of a password would shut out
    if (layout.mode == kLocked && !operation.Is(kMakes) && m_new.back() == "") {
      ASSERT_EQ(other.Open(path, u"", kLocked), 0U);
    }
    const auto child = Support::Fork(1, [&](unsigned int) {
      Bench bench(layout, path);
      Start(operation, bench);
      SyscallFaults faults;
      faults.KillAtCall(call, boundary);
      return operation.run(bench) + 1;
    });
    Support::ExpectEnd(child, SIGKILL);
    if (other.IsOpen() && !layout.isNaming) {
      EXPECT_EQ(ZrCompactFileReader().Open(path, u"", ZrCompactFile::kReadOnly), 0U);
    }
    ExpectState(operation, {}, true, true, other);
    Bench bench(layout, path);
    ExpectGoesOn(operation, bench);
  }

  // Runs an operation whose n-th call or request meets the fault. False if it makes fewer.
  static bool RunWith(const Fault& fault, std::size_t n, const Operation& operation, Bench& bench,
                      unsigned int& result) {
    std::optional<SyscallFaults> calls;
    std::optional<LibcFaults> others;
    if (fault.place == Fault::kFile)
      calls.emplace().FailCall(n, fault.error,
                               fault.isForGood ? SyscallFaults::kFromThenOn : SyscallFaults::kOnce);
    else
      others.emplace(fault.place == Fault::kMemory ? LibcFaults::kMemory : LibcFaults::kCalls, n,
                     fault.error, fault.isForGood);
    try {
      result = operation.run(bench);
    } catch (const std::bad_alloc&) {
      result = kThrown;
    }
    return calls ? calls->HasFailed() : others->HasFailed();
  }
  bool MeetsFault(const Operation& operation, const Fault& fault, std::size_t n) {
    PutBack(m_before);
    Bench bench(layout, path);
    Start(operation, bench);
    // Seems to be changed by another process, so that the operation has to look.
    if (!m_before.empty()) Support::Poke(path, 0, {m_before.front()});
    unsigned int result = 0;
    const bool isMet = RunWith(fault, n, operation, bench, result);
    if (result != 0) {
      EXPECT_TRUE(!fault.IsHarmless() && operation.failures.count(result) == 1) << result;
    }
    EXPECT_FALSE(bench.file.IsDeadLocked());
    if (operation.Is(kOpens) && result != 0 && !fault.isForGood) {
      EXPECT_EQ(folder.CountFiles(), ZrFile::IsExist(path) ? 1U : 0U) << "left over";
    }
    // Where nothing works any more, what was done cannot be undone.
    const bool mayBeDone = result == 0 || fault.isForGood || operation.Is(kMayBeDone);
    ExpectState(operation, bench.results, result != 0, mayBeDone, bench.file);
    if (result != 0) ExpectGoesOn(operation, bench);
    return isMet;
  }

  const Layout& layout = GetParam();
  Support::Bytes m_before;
  State m_old, m_new;
  std::vector<std::size_t> m_boundaries;  // of each system call

 private:
  // As long as something is open with the lock, closing other files is quick.
  TemporaryFolder m_elsewhere{TemporaryFolder::kMemory};
  ZrCompactFile m_another;
  const PretendToSync m_quick;
};
INSTANTIATE_TEST_SUITE_P(Engine, Survival, ::testing::ValuesIn(kLayouts),
                         [](const auto& param) { return param.param.name; });

TEST_P(Survival, AKillAtAnyCall) {
  std::size_t kills = 0;
  for (const Operation& operation : kOperations) {
    if (!operation.IsFor(layout) || operation.Is(kReads)) continue;
    SCOPED_TRACE(operation.name);
    ASSERT_NO_FATAL_FAILURE(Prepare(operation));
    for (std::size_t call = 1; call <= m_boundaries.size(); ++call)
      for (std::size_t boundary = 0; boundary <= m_boundaries[call - 1]; ++boundary) {
        SCOPED_TRACE(std::to_string(call) + "." + std::to_string(boundary));
        if (++kills % kStep == 0) IsKilled(operation, call, boundary);
      }
  }
}

TEST_P(Survival, AFaultAtAnyCallOrRequest) {
  std::size_t sweeps = 0;
  for (const Operation& operation : kOperations) {
    if (!operation.IsFor(layout)) continue;
    SCOPED_TRACE(operation.name);
    ASSERT_NO_FATAL_FAILURE(Prepare(operation));
    const std::size_t descriptors = CountOpenDescriptors();
    for (const Fault& fault : kFaults) {
      bool isMet = true;
      for (std::size_t n = 1 + ++sweeps % kStep; isMet; n += kStep) {
        SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(n));
        isMet = MeetsFault(operation, fault, n);
        EXPECT_LE(CountOpenDescriptors(), descriptors);
      }
    }
  }
}

}  // namespace
}  // namespace Zarn
