// What failures leave in ZrLastError: each cause by a fault that provokes it.

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "ZrCompactFileReader.h"
#include "ZrCompactFileStub.h"
#include "ZrError.h"
#include "ZrFile64.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

namespace fs = std::filesystem;
using Support::Bytes;
using Support::Poke;
using C = ZrCause;

constexpr ZrCompactFile::ZrOpenMode kLocked =
    ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;

// `object` has a grid of 2 x 2 open, with a tile in its first cell.
class Errors : public EngineTest {
 protected:
  void SetUp() override {
    MakeGrid(2, 2);
    ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
  }
  unsigned int Open(const PelmUnicodeString& file, ZrCompactFile::ZrOpenMode mode = kMode) {
    about = file;
    return fresh.Open(file, u"", mode);
  }
  unsigned int Create(unsigned int rows = 2) {
    about = folder.GetPath("new.cf");
    return fresh.Create(about, rows, 2, u"", kMode);
  }
  // Closes the file, and makes a part of it `byte`.
  void Damage(std::size_t offset, std::size_t size, unsigned char byte) {
    object.Close();
    Poke(path, offset, Bytes(size, byte));
  }
  void Mark() {
    constexpr const char* mark = "!!being replaced";
    object.Close();
    Poke(path, 0, Bytes(mark, mark + 16));
  }
  unsigned int Look() { return ReadTile(fresh, {0, 0}, 1).result; }
  static unsigned int Look(ZrCompactFileReader& reader) {
    ZrByteArray data;
    unsigned long long filled;
    return reader.Lookup(0, 0, data, filled, 1);
  }
  static unsigned int Look(ZrCompactFileStub& stub) {
    ZrByteArray data;
    unsigned long long filled;
    return stub.Read(0, 0, data, filled, 1) ? 0 : ZrLastError().result;
  }
  unsigned int Write(ZrCompactFileStub& stub) {
    about = folder.GetPath("new.cf");
    stub.SetPath(about);
    return stub.Write(0, 0, Data("tile"), 0, 0, 1) ? 0 : ZrLastError().result;
  }
  unsigned int Verify(const ZrCompactFile::VerifyProgress& progress) {
    ZrVerifySummary summary;
    return fresh.Verify(summary, nullptr, progress);
  }
  unsigned int StoreAtLimit() {
    rlimit before;
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit = {fs::file_size(path.ToUtf8()), before.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const unsigned int result = Store(0, 1, "tile", 1);
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    return result;
  }
  unsigned int OpenWithoutLocks() {
    const SyscallFaults restored;
    GetFileSyscalls().lock = [](int, int, struct flock*) { return errno = ENOLCK, -1; };
    return Open(path, kLocked);
  }
  unsigned int CompactClaimed() {
    ZrFile64 other;
    EXPECT_TRUE(other.Open(path, ZrFile64::kReadWrite) && other.TryClaim(path));
    return object.Compact();
  }
  unsigned int StoreWithinCompaction() {
    unsigned int result = 0;
    EXPECT_EQ(object.Compact([&](unsigned long long, unsigned long long) {
      result = Store(0, 1, "tile", 1);
      return true;
    }),
              0U);
    return result;
  }
  unsigned int CompactMoved() {
    fs::rename(path.ToUtf8(), folder.GetPath("moved.cf").ToUtf8());
    std::ofstream(path.ToUtf8()) << "another one";
    return object.Compact();
  }
  // A tile that no buffer has room for yet.
  unsigned int LookWithoutMemory() {
    EXPECT_EQ(Store(0, 1, std::string(1 << 20, 'x'), 1), 0U);
    EXPECT_EQ(Open(path), 0U);
    ZrByteArray data;
    unsigned long long filled;
    SyscallFaults faults;
    faults.FailCall(1, ENOMEM, SyscallFaults::kFromThenOn);
    return fresh.Lookup(0, 1, data, filled, 1);
  }
  unsigned int StoreBatch() {
    const ZrByteArray data = Data("tile");
    std::vector<unsigned int> results;
    return object.SetBatch(std::vector<ZrCellStore>{{0, 1, &data}, {9, 9, &data}, {1, 1, &data}},
                           results);
  }
  static PelmUnicodeString Wide(const std::string& text) {
    return PelmUnicodeString::FromUtf8(text);
  }

  ZrCompactFile fresh;
  PelmUnicodeString about = path;  // the file that the error is expected to name
  const std::size_t m_descriptors = CountOpenDescriptors();  // without a file
};

// While every call of the file classes fails with this error.
template <typename Action>
unsigned int Failing(int error, Action action) {
  SyscallFaults faults;
  faults.FailCall(1, error, SyscallFaults::kFromThenOn);
  return action();
}

struct Failure {
  const char* action;
  std::function<unsigned int()> provoke;
  unsigned int result;
  ZrCause cause;
  int systemError;
  const char* reason;
};

TEST_F(Errors, EachCauseIsToldByAFaultThatProvokesIt) {
  const PelmUnicodeString missing = folder.GetPath("none.cf"), plain = folder.GetPath("plain.cf");
  const std::string longName(300, 'x');
  ZrCompactFileReader reader;
  ZrCompactFileWriter writer;
  ZrCompactFileStub stub, pathless;
  ZrCompactFile unopened;
  std::ofstream(plain.ToUtf8()) << "This is a text, and no compact file: it has another beginning.";
  const auto stop = [](unsigned long long, unsigned long long) { return false; };
  const auto store = [&] { return Store(0, 1, "tile", 1); };
  const Failure cases[] = {
      {"store into", [&] { return Failing(ENOSPC, store); }, 10, C::kDiskFull, ENOSPC,
       "the disk is full (No space left on device)"},
      {"store into", [&] { return Failing(EDQUOT, store); }, 10, C::kSizeLimit, EDQUOT,
       "a limit on the size of files is reached (Disk quota exceeded)"},
      {"store into", [&] { return StoreAtLimit(); }, 10, C::kSizeLimit, EFBIG,
       "a limit on the size of files is reached (File too large)"},
      {"open", [&] { return Failing(EACCES, [&] { return Open(path, 2); }); }, 5, C::kPermission,
       EACCES, "permission is denied (Permission denied)"},
      {"store into", [&] { return Reopen(2), store(); }, 10, C::kReadOnly, 0,
       "it is open for reading only"},
      {"create", [&] { return Failing(EROFS, [&] { return Create(); }); }, 2, C::kReadOnly, EROFS,
       "it is open for reading only (Read-only file system)"},
      {"open", [&] { return OpenWithoutLocks(); }, 1, C::kLocked, ENOLCK,
       "it cannot be locked (No locks available)"},
      {"compact", [&] { return CompactClaimed(); }, 2, C::kLocked, EAGAIN,
       "it cannot be locked (Resource temporarily unavailable)"},
      {"store into", [&] { return StoreWithinCompaction(); }, 10, C::kInUse, 0, "it is in use"},
      {"store into", [&] { return about = u"", unopened.SetAt(0, 0, Data("x"), 0, 0, 1); }, 6,
       C::kNotOpen, 0, "no file is open"},
      {"read from",
       [&] {
         return about = u"", ReadTile(unopened, {0, 0}, 1).result;
       },
       9, C::kNotOpen, 0, "no file is open"},
      {"open", [&] { return Open(missing, 2); }, 5, C::kNoFile, ENOENT,
       "there is no such file (No such file or directory)"},
      {"read from", [&] { return Read(1, 1, 1).result; }, 5, C::kNoTile, 0,
       "there is no such tile"},
      {"create", [&] { return Create(), fresh.Close(), Create(); }, 2, C::kExists, EEXIST,
       "it exists already (File exists)"},
      {"create", [&] { return writer.Create(path, 1, 1, u"", 0); }, 2, C::kExists, 0,
       "it exists already"},
      {"compact", [&] { return CompactMoved(); }, 2, C::kMoved, 0,
       "another file has taken its place"},
      {"open", [&] { return Open(plain); }, 3, C::kWrongFormat, 0,
       "it is no compact file, or the password is wrong"},
      {"open", [&] { return reader.Open(path, u"secret", 2); }, 9, C::kWrongFormat, 0,
       "it is no compact file, or the password is wrong"},
      {"open", [&] { return Open(folder.GetPath(".")); }, 6, C::kWrongKind, 0,
       "it is a file of another kind"},
      {"read from", [&] { return Read(u"name").result; }, 9, C::kWrongKind, 0,
       "it is a file of another kind"},
      {"open", [&] { return Mark(), Open(path); }, 3, C::kUnfinished, 0,
       "a compaction was cut short and cannot be finished"},
      {"open", [&] { return Damage(19, 8, 0), Open(path); }, 1, C::kDamagedHeader, 0,
       "its header is damaged"},
      {"read from", [&] { return Damage(76, 8, 9), Open(path), Look(); }, 9, C::kDamagedEntry, 0,
       "an entry of its index is damaged"},
      {"read from", [&] { return Damage(108, 8, 255), Open(path), Look(); }, 9, C::kDamagedRecord,
       0, "a record is damaged"},
      {"verify", [&] { return Damage(108, 8, 255), Open(path), Verify(nullptr); }, 9,
       C::kDamagedRecord, 0, "a record is damaged"},
      {"read from", [&] { return Damage(108, 8, 255), reader.Open(path, u"", 2), Look(reader); }, 9,
       C::kDamagedRecord, 0, "a record is damaged"},
      {"store into", [&] { return Store(0, 2, "tile", 1); }, 10, C::kOutOfRange, 0,
       "a cell or a number is out of range"},
      {"create", [&] { return Create(0); }, 2, C::kOutOfRange, 0,
       "a cell or a number is out of range"},
      {"store into", [&] { return Store(0, 1, "", 1); }, 10, C::kEmptyArgument, 0,
       "the data or the name is empty"},
      {"store into", [&] { return StoreBatch(); }, 10, C::kOutOfRange, 0,
       "a cell or a number is out of range"},
      {"remove from", [&] { return MakeNaming(4), object.Remove(u"n", 1); }, 10, C::kNoTile, 0,
       "there is no such tile"},
      {"read from", [&] { return MakeNaming(4), Read(u"n").result; }, 5, C::kNoTile, 0,
       "there is no such tile"},
      {"store into", [&] { return Store(u"", "tile"); }, 10, C::kEmptyArgument, 0,
       "the data or the name is empty"},
      {"store into", [&] { return Store(Wide(std::string(129, 'n')), "tile"); }, 10, C::kTooLong, 0,
       "the name is too long"},
      {"open", [&] { return Open(folder.GetPath(longName + ".cf")); }, 2, C::kTooLong, ENAMETOOLONG,
       "the name is too long (File name too long)"},
      {"open", [&] { return Open(u""); }, 2, C::kBadPath, 0, "the path can name no file"},
      {"store into", [&] { return MakeNaming(4, false, 1), Store(u"n", "tile"); }, 10, C::kBadName,
       0, "the name cannot be converted"},
      {"store into", [&] { return object.SetAt(0, 1, missing, 1); }, 10, C::kBadSource, ENOENT,
       "the file to be stored cannot be read (No such file or directory)"},
      {"store into", [&] { return MakeNaming(0), Store(u"n", "tile"); }, 10, C::kFull, 0,
       "it can hold no more"},
      {"compact", [&] { return object.Compact(stop); }, 10, C::kCancelled, 0, "it was cancelled"},
      {"verify", [&] { return Open(path), Verify(stop); }, 1, C::kCancelled, 0, "it was cancelled"},
      {"read from", [&] { return LookWithoutMemory(); }, 9, C::kNoMemory, ENOMEM,
       "memory is short (Cannot allocate memory)"},
      {"open", [&] { return Failing(EMFILE, [&] { return Open(path, 2); }); }, 5, C::kTooManyFiles,
       EMFILE, "too many files are open (Too many open files)"},
      {"create", [&] { return Failing(ENOSYS, [&] { return Create(); }); }, 2, C::kNotSupported,
       ENOSYS, "the file system cannot do that (Function not implemented)"},
      {"read from", [&] { return Failing(EIO, [&] { return Read(0, 0, 1).result; }); }, 9,
       C::kInputOutput, EIO, "input or output failed (Input/output error)"},
      {"flush", [&] { return Failing(EIO, [&] { return object.Flush() ? 0U : 10U; }); }, 10,
       C::kInputOutput, EIO, "input or output failed (Input/output error)"},
      {"create", [&] { return Failing(EINVAL, [&] { return Create(); }); }, 2, C::kOther, EINVAL,
       "it failed for a reason that is not known (Invalid argument)"},
      {"store into", [&] { return Failing(ENOSPC, [&] { return Write(stub); }); }, 1, C::kDiskFull,
       ENOSPC, "the disk is full (No space left on device)"},
      {"read from", [&] { return about = u"", Look(pathless); }, 6, C::kNotOpen, 0,
       "no file is open"},
  };
  for (const Failure& failure : cases) {
    SCOPED_TRACE(::testing::Message() << failure.action << ": " << failure.reason);
    fresh.Close();
    MakeGrid(2, 2);
    ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
    about = path;
    EXPECT_EQ(failure.provoke(), failure.result);
    const ZrError& error = ZrLastError();
    EXPECT_EQ(error.result, failure.result);
    EXPECT_EQ(error.cause, failure.cause) << ZrCauseText(error.cause);
    EXPECT_EQ(error.systemError, failure.systemError);
    EXPECT_EQ(error.path, about.ToUtf8());
    EXPECT_EQ(ZrErrorText(error), std::string("cannot ") + failure.action + " " +
                                      (about.IsEmpty() ? "a file" : about.ToUtf8()) + ": " +
                                      failure.reason);
    std::error_code ignored;
    fs::remove(folder.GetPath("new.cf").ToUtf8(), ignored);
  }
}

// Another one's change makes the first attempt, whose read fails, count for nothing.
TEST_F(Errors, AnAttemptThatDoesNotCountIsNoCause) {
  static ZrCompactFile* s_other;
  const SyscallFaults restored;
  Reopen(kLocked);
  ASSERT_EQ(Open(path, kLocked), 0U);
  ASSERT_EQ(Look(), 0U);
  s_other = &object;
  GetFileSyscalls().pread = [](int fd, void* bytes, size_t size, off_t position) -> ssize_t {
    ZrCompactFile* const other = std::exchange(s_other, nullptr);
    if (other == nullptr) return ::pread(fd, bytes, size, position);
    EXPECT_EQ(other->Remove(0, 0, 1), 0U);
    return errno = EIO, -1;
  };
  EXPECT_EQ(Look(), 5U);
  EXPECT_EQ(s_other, nullptr);
  EXPECT_TRUE(ZrLastError().cause == C::kNoTile && ZrLastError().systemError == 0);
}

TEST_F(Errors, AThreadSeesItsOwnAndASuccessLeavesIt) {
  EXPECT_EQ(Open(u""), 2U);
  std::thread([&] {
    EXPECT_TRUE(ZrLastError().cause == C::kNone && ZrErrorText(ZrLastError()) == "no error");
    EXPECT_EQ(Read(1, 1, 1).result, 5U);
    EXPECT_EQ(ZrLastError().cause, C::kNoTile);
  }).join();
  ZrCompactFileStub stub;
  stub.SetPath(path);  // is there, which is no failure
  EXPECT_EQ(Read(0, 0, 1).result, 0U);
  EXPECT_EQ(Open(folder.GetPath("made")), 0U);
  EXPECT_EQ(ZrLastError().cause, C::kBadPath);
  const char* const unknown = ZrResultText(99);
  for (const unsigned int code : {0, 1, 2, 3, 5, 6, 8, 9, 10})
    EXPECT_STRNE(ZrResultText(code), unknown);
}

TEST_F(Errors, WhatMustExistIsNeverMade) {
  const auto missing = folder.GetPath("none.cf");
  for (const ZrCompactFile::ZrOpenMode more : {0, 1, 2, 4, 8, 16, 31}) {
    const auto mode = ZrCompactFile::kMustExist | more;
    EXPECT_EQ(Open(missing, mode), 5U);
    EXPECT_EQ(ZrLastError().cause, C::kNoFile);
    EXPECT_EQ(Open(u"", mode), 5U);
    EXPECT_EQ(Open(path, mode), 0U);
    EXPECT_EQ(fresh.SetAt(1, 1, Data("x"), 0, 0, 1), (more & 2) != 0 ? 10U : 0U);
    fresh.Close();
  }
  EXPECT_EQ(folder.CountFiles(), 1U);
}

TEST_F(Errors, CloseAllEndsTheUseOfAllThreads) {
  for (const auto mode : {kMode, kLocked, kMode | ZrCompactFile::kMapped}) {
    Reopen(mode);
    constexpr unsigned int kThreads = 4;
    std::atomic<unsigned int> atWork = 0, ended = 0;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kThreads; ++i)
      threads.emplace_back([&, i] {
        ++atWork;
        unsigned int result = 0;
        while (result == 0) {
          result = i == 0 ? Store(0, 1, "other", 1) : Read(0, 0, 1).result;
          if (!object.Flush()) break;
        }
        ended += ZrLastError().cause == C::kNotOpen ? 1 : 0;
      });
    while (atWork < kThreads)
      std::this_thread::yield();
    EXPECT_TRUE(object.CloseAll());
    EXPECT_FALSE(object.IsOpen());
    EXPECT_EQ(CountOpenDescriptors(), m_descriptors);
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(ended, kThreads);
    EXPECT_TRUE(object.CloseAll()) << "nothing is open";
  }
  Reopen();
  EXPECT_EQ(Read(0, 0, 1).payload, "tile");
  Check();
  const auto refused = [&](unsigned long long, unsigned long long) { return !object.CloseAll(); };
  EXPECT_EQ(object.Compact(refused), 0U);
  EXPECT_EQ(ZrLastError().cause, C::kInUse);
}

}  // namespace
}  // namespace Zarn
