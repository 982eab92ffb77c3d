#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "ZrFile.h"
#include "ZrFile64.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

constexpr unsigned int kReadWrite = ZrFileStream::kReadWrite;

struct FileTest : testing::Test {
  PelmUnicodeString MakeFile(const std::string& name, const std::string& contents) {
    Support::WriteFile(folder.GetPath(name), Support::Text(contents));
    return folder.GetPath(name);
  }
  std::string ContentsOf(const std::string& name) {
    const Support::Bytes bytes = Support::ReadFile(folder.GetPath(name));
    return {bytes.begin(), bytes.end()};
  }

  TemporaryFolder folder;
  ZrFile64 file;
};

TEST(PathTest, PartsOfAPath) {
  using Path = std::pair<const char16_t*, const char*>;  // with its folder, name and extension
  for (const auto& [path, parts] :
       {Path{u"", "||"}, Path{u"name.tar.gz", "|name.tar.gz|.gz"}, Path{u"a.b/c", "a.b/|c|"},
        Path{u"/a.b/", "/a.b/||"}, Path{u"a/.b", "a/|.b|.b"}, Path{u"a/b.", "a/|b.|."},
        Path{u"a\\b.c", "|a\\b.c|.c"}})
    EXPECT_EQ(ZrFile::GetDir(path).ToUtf8() + "|" + ZrFile::GetName(path).ToUtf8() + "|" +
                  ZrFile::GetExt(path).ToUtf8(),
              parts);
}

TEST_F(FileTest, OpensExistingRegularFilesOnly) {
  const PelmUnicodeString path = MakeFile("file", "x");
  ASSERT_EQ(::mkfifo((folder.GetFolder() / "fifo").c_str(), 0600), 0);
  const std::size_t descriptors = CountOpenDescriptors();
  for (const auto& other : {folder.GetPath("fifo"), folder.GetPath("."), folder.GetPath("file/x"),
                            path + PelmUnicodeString(u"\0z", 2)})
    for (const unsigned int direction : {ZrFileStream::kRead, kReadWrite})
      EXPECT_FALSE(file.Open(other, direction) || file.IsOpen()) << other.ToUtf8();
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
  ASSERT_TRUE(file.Open(path, ZrFileStream::kRead) && file.IsReadOnly());
  EXPECT_FALSE(file.Write("x", 1) || file.SetLength(0) || file.ZeroFill(1, 1) ||
               file.Save(ZrByteArray("y", 1)) || file.GetPosition() != 0);
  EXPECT_TRUE(ContentsOf("file") == "x" && file.Open(path, kReadWrite) && !file.IsReadOnly());
  EXPECT_TRUE(file.Write("longer", 6) && file.Save(ZrByteArray("y", 1)));
  EXPECT_EQ(ContentsOf("file"), "y");
}

TEST_F(FileTest, PositionsBeyondFourGibibytes) {
  constexpr std::uint64_t kFar = (5ULL << 30) + 3;
  ASSERT_TRUE(file.Open(MakeFile("file", "begin"), kReadWrite));
  file.Seek(kFar);
  char text[16] = {};
  EXPECT_TRUE(file.Write("abc", 3) && file.WriteParts(kFar + 3, "de", 2, "f", 1) &&
              file.ZeroFill(kFar + 1, 1) && file.ZeroFill(kFar + 6, 2));
  EXPECT_EQ(file.Read(text, 16) + file.GetPosition(), 5 + kFar + 8);  // from behind "abc"
  EXPECT_TRUE(file.ReadUpTo(kFar, text, 11) == 8 && !file.ReadAt(kFar + 7, text + 9, 2));
  EXPECT_EQ(std::string(text, 8), std::string("a\0cdef\0\0", 8));
  EXPECT_TRUE(file.SetLength(6ULL << 30) && file.NextData(5632ULL << 20) == 6ULL << 30);
  for (const std::uint64_t position : {1ULL << 63, ~0ULL})
    EXPECT_FALSE(file.WriteAt(position, "x", 1) || file.ReadAt(position, text, 1) ||
                 file.ZeroFill(position, 1) || file.SetLength(position));
  EXPECT_TRUE(file.ReadAt(0, text, 5) && std::string(text, 5) == "begin");
}

TEST_F(FileTest, ZeroFillTakesTheRoom) {
  static int s_error;
  const SyscallFaults restore;
  for (const int error : {0, EOPNOTSUPP, ENOSYS, ENOSPC}) {
    if ((s_error = error) != 0)
      GetFileSyscalls().fallocate = [](int, int, off_t, off_t) { return errno = s_error, -1; };
    ASSERT_TRUE(file.Open(MakeFile("file", std::string(100000, 'x')), kReadWrite));
    ASSERT_EQ(file.ZeroFill(20, 300000) && file.ZeroFill(400000, 7), error != ENOSPC) << error;
    if (error == ENOSPC) break;
    struct stat status = {};
    EXPECT_EQ(ContentsOf("file"), std::string(20, 'x').append(399987, '\0'));
    EXPECT_TRUE(file.GetStatus(status) && status.st_blocks * 512 >= 300000);
  }
}

}  // namespace
}  // namespace Zarn
