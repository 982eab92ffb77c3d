#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <set>

#include "ZrCacheFile.h"
#include "ZrFile.h"
#include "ZrFile64.h"
#include "ZrNewFile.h"
#include "support/SyscallFaults.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;
using Outcome = ZrNewFile::Outcome;
constexpr unsigned int kRead = ZrFileStream::kRead;
constexpr unsigned int kReadWrite = ZrFileStream::kReadWrite;

class FileTest : public testing::Test {
 protected:
  PelmUnicodeString MakeFile(const std::string& name, const std::string& contents) {
    std::ofstream(m_folder.GetFolder() / name, std::ios::binary) << contents;
    return m_folder.GetPath(name);
  }
  std::string ContentsOf(const std::string& name) {
    std::ifstream file(m_folder.GetFolder() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  Names NamesInFolder() {
    Names names;
    for (const auto& entry : fs::directory_iterator(m_folder.GetFolder()))
      names.insert(entry.path().filename());
    return names;
  }

  TemporaryFolder m_folder;
  ZrFile64 m_file;
};

TEST(PathTest, PartsOfAPath) {
  using Path = std::pair<const char16_t*, const char*>;  // with its folder, name and extension
  for (const auto& [path, parts] :
       {Path{u"", "||"}, Path{u"name", "|name|"}, Path{u"name.tar.gz", "|name.tar.gz|.gz"},
        Path{u"/a/b.txt", "/a/|b.txt|.txt"}, Path{u"a.b/c", "a.b/|c|"}, Path{u"a.b/", "a.b/||"},
        Path{u"a/.b", "a/|.b|.b"}, Path{u"a/b.", "a/|b.|."}, Path{u"a\\b.c", "|a\\b.c|.c"}})
    EXPECT_EQ(ZrFile::GetDir(path).ToUtf8() + "|" + ZrFile::GetName(path).ToUtf8() + "|" +
                  ZrFile::GetExt(path).ToUtf8(),
              parts);
}

TEST_F(FileTest, MakesFoldersAndDeletesFilesOnly) {
  for (const char* name : {"a/b/c", "a/b/c", "a/b/", "d//e/"}) {
    EXPECT_TRUE(ZrFile::MkDirEx(m_folder.GetPath(name))) << name;
    EXPECT_TRUE(fs::is_directory(m_folder.GetFolder() / name)) << name;
  }
  const PelmUnicodeString file = MakeFile("file", "x");
  EXPECT_FALSE(ZrFile::MkDirEx(file) || ZrFile::MkDirEx(m_folder.GetPath("file/a/b")));
  EXPECT_FALSE(ZrFile::Delete(m_folder.GetPath("d/e")));
  EXPECT_TRUE(ZrFile::IsExist(m_folder.GetPath("d/e")) && ZrFile::Delete(file));
  EXPECT_FALSE(ZrFile::IsExist(file) || ZrFile::Delete(file));
}

TEST_F(FileTest, OpensExistingRegularFilesOnly) {
  const PelmUnicodeString file = MakeFile("file", "x");
  ASSERT_EQ(::mkfifo((m_folder.GetFolder() / "fifo").c_str(), 0600), 0);
  const SyscallFaults faults;
  for (const char* name : {"missing", "fifo", ".", "file/x"}) {
    for (const unsigned int direction : {kRead, kReadWrite}) {
      ASSERT_TRUE(m_file.Open(file, direction));
      EXPECT_FALSE(m_file.Open(m_folder.GetPath(name), direction) || m_file.IsOpen()) << name;
    }
  }
  // No descriptor leaks: of the file 8 times, the FIFO twice, the folder where it can be opened.
  EXPECT_EQ(faults.GetCount("close"), 8U + 2 + 1);
  for (const unsigned int direction : {0U, 1U, 4U})
    EXPECT_FALSE(m_file.Open(file, direction));
  for (const PelmUnicodeString& path : {PelmUnicodeString(), file + PelmUnicodeString(u"\0z", 2)}) {
    EXPECT_FALSE(ZrFile::IsExist(path) || ZrFile::MkDirEx(path) || ZrFile::Delete(path));
    EXPECT_FALSE(m_file.Open(path, kRead) || ZrNewFile(m_file).Begin(path));
  }
  for (const bool open : {false, true}) {  // neither a closed stream nor a read-only one writes
    EXPECT_FALSE(m_file.Write("x", 1) || m_file.WriteParts(0, "x", 1, "y", 1) ||
                 m_file.SetLength(0) || m_file.ZeroFill(0, 1) || m_file.ZeroFill(1, 1) ||
                 m_file.Save(ZrByteArray("y", 1)) || m_file.GetPosition() != 0);
    EXPECT_TRUE(m_file.IsReadOnly() == open && m_file.Open(file, kRead));
  }
  EXPECT_TRUE(ContentsOf("file") == "x" && m_file.Open(file, kReadWrite) && !m_file.IsReadOnly());
  EXPECT_EQ(NamesInFolder(), (Names{"fifo", "file"}));
}

TEST_F(FileTest, PositionsBeyondFourGibibytes) {
  constexpr std::uint64_t kFar = (5ULL << 30) + 3;
  ASSERT_TRUE(m_file.Open(MakeFile("file", "begin"), kReadWrite));
  m_file.Seek(kFar);
  EXPECT_TRUE(m_file.Write("abc", 3) && m_file.WriteParts(kFar + 3, "de", 2, "f", 1));
  EXPECT_TRUE(m_file.ZeroFill(kFar + 1, 1) && m_file.ZeroFill(kFar + 6, 2));
  char text[16] = {};
  EXPECT_EQ(m_file.Read(text, sizeof text), 5U);  // from behind "abc" up to the end
  EXPECT_EQ(m_file.GetPosition(), kFar + 8);
  EXPECT_EQ(m_file.ReadUpTo(kFar, text, 11), 8U);
  EXPECT_EQ(std::string(text, 8), std::string("a\0cdef\0\0", 8));
  EXPECT_FALSE(m_file.ReadAt(kFar + 7, text, 2));
  const std::uint64_t data = m_file.NextData(1ULL << 30);
  EXPECT_TRUE(data > 4ULL << 30 && data <= kFar && m_file.NextData(kFar) == kFar) << data;
  EXPECT_TRUE(m_file.SetLength(6ULL << 30) && m_file.NextData(5632ULL << 20) == 6ULL << 30);
  for (const std::uint64_t position : {1ULL << 63, ~0ULL}) {
    EXPECT_FALSE(m_file.WriteAt(position, "x", 1) || m_file.ReadAt(position, text, 1));
    EXPECT_FALSE(m_file.ZeroFill(position, 1) || m_file.SetLength(position));
  }
  EXPECT_TRUE(m_file.ReadAt(0, text, 6) && text == std::string("begin"));
  SyscallFaults faults;
  faults.FailCall(1, EINVAL);  // holes are not known here
  EXPECT_EQ(m_file.NextData(1ULL << 30), 1ULL << 30);
}

TEST_F(FileTest, ZeroFillTakesTheRoom) {
  static int s_error;
  const SyscallFaults restore;
  for (const int error : {0, EOPNOTSUPP, ENOSYS, ENOSPC}) {
    if ((s_error = error) != 0)
      GetFileSyscalls().fallocate = [](int, int, off_t, off_t) { return errno = s_error, -1; };
    ASSERT_TRUE(m_file.Open(MakeFile("file", std::string(100000, 'x')), kReadWrite));
    EXPECT_EQ(m_file.ZeroFill(20, 300000) && m_file.ZeroFill(400000, 7), error != ENOSPC) << error;
    if (error == ENOSPC) break;
    EXPECT_TRUE(ContentsOf("file") == std::string(20, 'x').append(399987, '\0')) << error;
    struct stat status;
    ASSERT_EQ(::stat((m_folder.GetFolder() / "file").c_str(), &status), 0);
    EXPECT_GE(status.st_blocks * 512, 300000) << error;
  }
}

// Transfers of at most three bytes, and of two parts with one byte of the second.
template <auto kCall, typename Buffer>
ssize_t MoveFew(int fd, Buffer buffer, size_t size, off_t position) {
  return kCall(fd, buffer, size < 3 ? size : 3, position);
}
template <auto kCall>
ssize_t MoveFewOfParts(int fd, const iovec* parts, int count, off_t position) {
  const iovec few[2] = {parts[0], {parts[1].iov_base, 1}};
  return kCall(fd, few, count, position);
}

TEST_F(FileTest, ShortTransfersAreCarriedOn) {
  ASSERT_TRUE(m_file.Open(MakeFile("file", ""), kReadWrite));
  const SyscallFaults restore;
  GetFileSyscalls().pread = MoveFew<::pread>;
  GetFileSyscalls().pwrite = MoveFew<::pwrite>;
  GetFileSyscalls().pwritev = MoveFewOfParts<::pwritev>;
  EXPECT_TRUE(m_file.Write("0123456789", 10) && m_file.WriteParts(10, "hello", 5, "planet", 6));
  EXPECT_EQ(ContentsOf("file"), "0123456789helloplanet");
  char text[20] = {};
  EXPECT_TRUE(m_file.ReadAt(2, text, 8) && text == std::string("23456789"));
  EXPECT_EQ(m_file.ReadUpTo(9, text, 20), 12U);
  EXPECT_STREQ(text, "9helloplanet");
}

TEST_F(FileTest, LoadAndSaveTakeTheWholeFile) {
  ASSERT_TRUE(m_file.Open(MakeFile("file", "something longer"), kReadWrite));
  ZrByteArray loaded;
  for (const std::string& text : {std::string("short"), std::string(70000, 'y'), std::string()}) {
    loaded.SetPosition(1);
    ASSERT_TRUE(m_file.Save(ZrByteArray(text.data(), text.size())) && m_file.Load(loaded));
    EXPECT_TRUE(ContentsOf("file") == text && loaded.GetPosition() == 0);
    EXPECT_TRUE(std::string(loaded.GetData(), loaded.GetData() + loaded.GetSize()) == text);
  }
  const SyscallFaults restore;
  GetFileSyscalls().pread = [](int, void*, size_t, off_t) -> ssize_t { return 0; };
  EXPECT_TRUE(m_file.SetLength(1) && !m_file.Load(loaded));  // as if it were empty by now
}

TEST_F(FileTest, EveryFailingCallIsReported) {
  const PelmUnicodeString path = MakeFile("file", "contents");
  ASSERT_TRUE(m_file.Open(path, kReadWrite));
  ZrFile64 other;
  ZrByteArray data("abcd", 4);
  const struct {
    std::string_view calls;  // their initials; a capital for one that a signal may interrupt
    std::function<bool()> run;
  } kOperations[] = {
      {"Of", [&] { return other.Open(path, kReadWrite); }},
      {"P", [&] { return m_file.WriteParts(0, "a", 1, "b", 1); }},
      {"P", [&] { return m_file.ReadUpTo(0, data.GetData(), 2) == 2; }},
      {"F", [&] { return m_file.Sync(); }},
      {"fPF", [&] { return m_file.ZeroFill(6, 4); }},
      {"PF", [&] { return m_file.Save(data); }},
      {"fP", [&] { return m_file.Load(data); }},
      {"sf", [&] { return m_file.IsSameFile(path); }},
  };
  for (const auto& [calls, run] : kOperations) {
    for (std::size_t n = 0; n <= calls.size(); ++n) {
      for (const int error : {EIO, EINTR}) {
        other.Close();
        ASSERT_TRUE(m_file.SetLength(8));
        SyscallFaults faults;
        faults.FailCall(n + 1, error);
        const bool fails = n < calls.size() && (error == EIO || calls[n] >= 'a');
        EXPECT_EQ(run(), !fails) << calls << " " << n;
        EXPECT_EQ(faults.HasFailed(), n < calls.size()) << calls << " " << n;
      }
    }
  }
  {
    SyscallFaults faults;
    faults.FailCall(2, EIO, SyscallFaults::kFromThenOn);
    EXPECT_TRUE(m_file.WriteParts(0, "a", 1, "b", 1) && !m_file.Sync() && !m_file.SetLength(2));
    EXPECT_TRUE(faults.GetCount() == 3 && faults.GetCount("pwritev") == 1);
  }
  EXPECT_TRUE(m_file.Sync());
}

// A file system whose rename cannot refuse to replace.
int RefuseRename(const char*, const char*) {
  return errno = EINVAL, -1;
}

TEST_F(FileTest, NewFilesTouchNothingThatExistsUnlessTold) {
  MakeFile("file", "old");
  fs::create_directory(m_folder.GetFolder() / "folder");
  fs::create_symlink("nowhere", m_folder.GetFolder() / "link");
  const SyscallFaults restore;
  for (const int round : {0, 1, 2, 3}) {  // publish, the same by the fallback, replace, for good
    if (round == 1) GetFileSyscalls().renameNoReplace = RefuseRename;
    for (const std::string name : {"file", "folder", "link"}) {
      ZrNewFile file(m_file);
      ASSERT_TRUE(file.Begin(m_folder.GetPath(name)) && m_file.Write("new", 3));
      const bool published = round >= 2 && name != "folder";
      const Outcome refusal = round >= 2 ? Outcome::kFailed : Outcome::kExists;
      EXPECT_EQ(round >= 2 ? file.Replace() : file.Publish(),
                published ? Outcome::kPublished : refusal);
      if (round == 3) file.Commit();
      EXPECT_EQ(m_file.IsSameFile(m_folder.GetPath(name)), published) << name;
    }
    EXPECT_EQ(ContentsOf("file") + ContentsOf("link"), round == 3 ? "newnew" : "old");
    EXPECT_EQ(NamesInFolder(), (Names{"file", "folder", "link"})) << round;
  }
}

TEST_F(FileTest, NewFilesAppearWholeOrNotAtAll) {
  for (const bool fallback : {false, true}) {
    bool failed = true;
    for (std::size_t n = 1; failed; ++n) {
      SyscallFaults faults;
      if (fallback) GetFileSyscalls().renameNoReplace = RefuseRename;
      auto file = std::make_unique<ZrNewFile>(m_file);
      faults.FailCall(n, EIO);
      const bool published = file->Begin(m_folder.GetPath("file")) && m_file.Write("abc", 3) &&
                             m_file.Sync() && NamesInFolder().size() == 1 &&
                             NamesInFolder().count("file") == 0 &&
                             file->Publish() == Outcome::kPublished;
      failed = faults.HasFailed();
      if (published) file->Commit();
      file.reset();
      EXPECT_TRUE(published || failed) << n;
      EXPECT_EQ(m_file.IsOpen(), published) << n;
      EXPECT_EQ(ContentsOf("file"), published ? "abc" : "") << n;
      // The private name may only be left when its very removal has failed.
      const Names names = NamesInFolder();
      EXPECT_TRUE(names == (published ? Names{"file"} : Names{}) || (published && failed)) << n;
      m_file.Close();
      for (const std::string& name : names)
        fs::remove(m_folder.GetFolder() / name);
    }
  }
}

TEST_F(FileTest, UnregisteredCacheFileFailsEverywhere) {
  const PelmUnicodeString path = MakeFile("old.sc", "x");
  const auto cache = ZrCacheFile::Make();
  ZrByteArray data("abc", 3);
  PelmArray<PelmUnicodeString> names;
  ZrCacheFileStatus status{1, 2};
  EXPECT_TRUE(cache->Open(path, {}, 2) != 0 && cache->Open(path, {}, 3) != 0 && !cache->IsOpen());
  EXPECT_TRUE(cache->GetFullPath().IsEmpty() && cache->Reconstruction() != 0);
  EXPECT_TRUE(cache->GetStatus(status, 0) != 0 && status.first + status.second == 0);
  EXPECT_TRUE(cache->ListFiles(names) != 0 && names.IsEmpty());
  EXPECT_TRUE(cache->AddFile(data, u"tile") != 0 && cache->AddFile(path, u"tile") != 0);
  EXPECT_TRUE(cache->ReadFile(u"tile", data) != 0 && cache->RemoveFile(u"tile", 0, 0) != 0);
  EXPECT_TRUE(data.GetSize() == 3 && ContentsOf("old.sc") == "x");
}

}  // namespace
}  // namespace Zarn
