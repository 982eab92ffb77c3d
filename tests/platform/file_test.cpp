#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "ZrFile.h"
#include "ZrFile64.h"
#include "ZrNewFile.h"
#include "support/SyscallFaults.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

namespace fs = std::filesystem;
using Outcome = ZrNewFile::Outcome;
constexpr unsigned int kReadWrite = ZrFileStream::kReadWrite;

struct FileTest : testing::Test {
  PelmUnicodeString MakeFile(const std::string& name, const std::string& contents) {
    std::ofstream(m_folder.GetFolder() / name, std::ios::binary) << contents;
    return m_folder.GetPath(name);
  }
  std::string ContentsOf(const std::string& name) {
    std::ifstream file(m_folder.GetFolder() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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

TEST_F(FileTest, OpensExistingRegularFilesOnly) {
  const PelmUnicodeString file = MakeFile("file", "x");
  ASSERT_EQ(::mkfifo((m_folder.GetFolder() / "fifo").c_str(), 0600), 0);
  const std::size_t descriptors = CountOpenDescriptors();
  for (const auto& path : {m_folder.GetPath("fifo"), m_folder.GetPath("."),
                           m_folder.GetPath("file/x"), file + PelmUnicodeString(u"\0z", 2)})
    for (const unsigned int direction : {ZrFileStream::kRead, kReadWrite})
      EXPECT_FALSE(m_file.Open(path, direction) || m_file.IsOpen()) << path.ToUtf8();
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
  ASSERT_TRUE(m_file.Open(file, ZrFileStream::kRead) && m_file.IsReadOnly());
  EXPECT_FALSE(m_file.Write("x", 1) || m_file.WriteParts(0, "x", 1, "y", 1) ||
               m_file.SetLength(0) || m_file.ZeroFill(0, 1) || m_file.ZeroFill(1, 1) ||
               m_file.Save(ZrByteArray("y", 1)) || m_file.GetPosition() != 0);
  EXPECT_TRUE(ContentsOf("file") == "x" && m_file.Open(file, kReadWrite) && !m_file.IsReadOnly());
}

TEST_F(FileTest, PositionsBeyondFourGibibytes) {
  constexpr std::uint64_t kFar = (5ULL << 30) + 3;
  ASSERT_TRUE(m_file.Open(MakeFile("file", "begin"), kReadWrite));
  m_file.Seek(kFar);
  char text[16] = {};
  EXPECT_TRUE(m_file.Write("abc", 3) && m_file.WriteParts(kFar + 3, "de", 2, "f", 1) &&
              m_file.ZeroFill(kFar + 1, 1) && m_file.ZeroFill(kFar + 6, 2));
  EXPECT_EQ(m_file.Read(text, 16) + m_file.GetPosition(), 5 + kFar + 8);  // from behind "abc"
  EXPECT_TRUE(m_file.ReadUpTo(kFar, text, 11) == 8 && !m_file.ReadAt(kFar + 7, text + 9, 2));
  EXPECT_EQ(std::string(text, 8), std::string("a\0cdef\0\0", 8));
  EXPECT_TRUE(m_file.NextData(1ULL << 30) >> 30 == 5 && m_file.NextData(kFar) == kFar);
  EXPECT_TRUE(m_file.SetLength(6ULL << 30) && m_file.NextData(5632ULL << 20) == 6ULL << 30);
  for (const std::uint64_t position : {1ULL << 63, ~0ULL})
    EXPECT_FALSE(m_file.WriteAt(position, "x", 1) || m_file.ReadAt(position, text, 1) ||
                 m_file.ZeroFill(position, 1) || m_file.SetLength(position));
  EXPECT_TRUE(m_file.ReadAt(0, text, 5) && std::string(text, 5) == "begin");
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
    struct stat status = {};
    EXPECT_TRUE(error == ENOSPC || ContentsOf("file") == std::string(20, 'x').append(399987, '\0'));
    EXPECT_TRUE(error == ENOSPC || (m_file.GetStatus(status) && status.st_blocks * 512 >= 300000));
  }
}

int RefuseRename(const char*, const char*) { return errno = EINVAL, -1; }

TEST_F(FileTest, NewFilesTouchNothingThatExistsUnlessTold) {
  MakeFile("file", "old");
  fs::create_directory(m_folder.GetFolder() / "folder");
  const SyscallFaults restore;
  for (const int round : {0, 1, 2, 3}) {  // publish, the same by the fallback, replace, for good
    if (round == 1) GetFileSyscalls().renameNoReplace = RefuseRename;
    for (const std::string name : {"file", "folder", "missing"}) {
      ZrNewFile file(m_file);
      ASSERT_TRUE(file.Begin(m_folder.GetPath(name)) && m_file.Write("new", 3));
      const bool published = name == "missing" || (round >= 2 && name != "folder");
      const Outcome refusal = round >= 2 ? Outcome::kFailed : Outcome::kExists;
      const Outcome outcome = round >= 2 ? file.Replace() : file.Publish();
      if (round == 3) file.Commit();
      EXPECT_EQ(outcome, published ? Outcome::kPublished : refusal) << name;
      EXPECT_EQ(m_file.IsSameFile(m_folder.GetPath(name)), published) << name;
    }
    EXPECT_EQ(ContentsOf("file") + ContentsOf("missing"), round == 3 ? "newnew" : "old");
    EXPECT_EQ(m_folder.CountFiles(), round == 3 ? 3U : 2U);
  }
}

}  // namespace
}  // namespace Zarn
