#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "FileSyscalls.h"
#include "ZrFile.h"
#include "ZrToolkit.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Name = PelmUnicodeString;
using Support::operator+;
using Support::ReadFile;

constexpr ZrCompactFile::ZrOpenMode kLocked = 12;

class Compaction : public EngineTest {
 public:
  Name TemporaryPath() const { return folder.GetPath(".$t.cf"); }
  std::size_t CountFiles() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder.GetFolder()), {}));
  }
  unsigned int Put(const Name& name, std::string_view text, unsigned long long version = 1) {
    return object.SetAt(name, Data(text), 0, 0, version);
  }
  Tile Get(const Name& name) { return ReadTile(object, name, ~0ULL); }
};

class CompactionInBothOrders : public Compaction, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Engine, CompactionInBothOrders, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

// What a compacted file holds is what the same tiles give that are stored one after the other.
TEST_P(CompactionInBothOrders, GridIsAsIfStoredAnew) {
  MakeGrid(3, 700, GetParam());
  for (unsigned int row = 0; row < 3; ++row)
    for (unsigned int col = 0; col < 700; col += col % 50 == 3 ? 47 : 1)
      for (const unsigned long long version : {7, 2, 5, 9, 7})
        ASSERT_EQ(Store(2 - row, col, std::string(col % 40 + version, 'x'), version), 0U);
  ASSERT_EQ(Store(1, 60, std::string(2 << 20, 'l'), 1), 0U);
  ASSERT_EQ(object.Remove(1, 1, 5), 0U);
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_EQ(CountFiles(), 1U);

  ZrCompactFile expected;
  ASSERT_EQ(expected.Create(folder.GetPath("expected"), 3, 700, u"", kMode), 0U);
  for (unsigned int row = 0; row < 3; ++row)
    for (unsigned int col = 0; col < 700; col += col % 50 == 3 ? 47 : 1) {
      for (const unsigned long long version : {2, 5, 7, 9}) {
        if (row != 1 || col != 1 || version != 5) {
          ASSERT_EQ(expected.SetAt(row, col, Data(std::string(col % 40 + version, 'x')), 0, 0,
                                   version),
                    0U);
        }
      }
    }
  ASSERT_EQ(expected.SetAt(1, 60, Data(std::string(2 << 20, 'l')), 0, 0, 1), 0U);
}

}  // namespace
}  // namespace Zarn
