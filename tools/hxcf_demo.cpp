// Packs the files of a folder into a grid file, one per cell, reads every one back and compares.
// Some tiles are stored in pieces, and some get a second version.

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "ZrCompactFile.h"
#include "ZrFile64.h"

namespace fs = std::filesystem;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

namespace {

using Clock = std::chrono::steady_clock;

struct Phase {
  std::size_t tiles = 0;
  unsigned long long bytes = 0;
  Clock::duration busy{};  // inside the library; reading the folder's files does not count

  double MegabytesPerSecond() const {
    const double seconds = std::chrono::duration<double>(busy).count();
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
  }
};

struct Cell {
  unsigned int row, col;
};

// The files in the order of their cells, and the smallest square grid that holds them.
struct Plan {
  std::vector<PelmUnicodeString> files;
  unsigned int side = 1;

  Cell CellOf(std::size_t file) const {
    return {static_cast<unsigned int>(file / side), static_cast<unsigned int>(file % side)};
  }
};

class ProgressBar {
 public:
  ProgressBar(const char* label, std::size_t total)
      : m_label(label), m_total(total), m_shown(::isatty(STDERR_FILENO) == 1) {}
  ~ProgressBar() {
    if (m_shown) std::fprintf(stderr, "\r\033[K");
  }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void Show(std::size_t done) {
    const std::size_t percent = done * 100 / m_total;
    if (!m_shown || percent == m_percent) return;
    m_percent = percent;
    const std::string bar(percent / 4, '#');
    std::fprintf(stderr, "\r%s [%-25s] %3zu %%", m_label, bar.c_str(), percent);
  }

 private:
  const char* m_label;
  std::size_t m_total;
  bool m_shown;
  std::size_t m_percent = 101;
};

// Left out: empty files (a tile has at least one byte), names that are not UTF-8, files that may
// not be read, and the container itself.
bool CanBeStored(const fs::directory_entry& file, const PelmUnicodeString& path,
                 const PelmUnicodeString& target) {
  std::error_code error;
  return file.is_regular_file(error) && file.file_size(error) > 0 && !error &&
         path.ToUtf8() == file.path().string() && !fs::equivalent(file, target.ToUtf8(), error) &&
         ::access(file.path().c_str(), R_OK) == 0;
}

Plan MakePlan(const fs::path& folder, const PelmUnicodeString& target) {
  Plan plan;
  std::error_code error;
  const auto options = fs::directory_options::skip_permission_denied;
  for (fs::recursive_directory_iterator it(folder, options, error), end; !error && it != end;
       it.increment(error)) {
    const PelmUnicodeString path = PelmUnicodeString::FromUtf8(it->path().string());
    if (CanBeStored(*it, path, target)) plan.files.push_back(path);
  }
  if (error) std::fprintf(stderr, "%s: %s\n", folder.c_str(), error.message().c_str());
  while (std::size_t{plan.side} * plan.side < plan.files.size())
    ++plan.side;
  return plan;
}

bool LoadFile(const PelmUnicodeString& path, ZrByteArray& data) {
  Zarn::ZrFile64 file;
  return file.Open(path, Zarn::ZrFile64::kRead) && file.Load(data);
}

constexpr unsigned long long kFileVersion = 1;
constexpr unsigned long long kPathVersion = 2;  // a newer one that holds the file's path

bool IsStoredInPieces(std::size_t file) { return file % 50 == 0; }
bool HasSecondVersion(std::size_t file) { return file % 50 == 25; }

ZrByteArray PathTile(const PelmUnicodeString& path) {
  const std::string text = path.ToUtf8();
  return ZrByteArray(text.data(), text.size());
}

/// Stores and looks up one tile, and measures what the library takes for it.
class TileAccess {
 public:
  TileAccess(ZrCompactFile& file, Cell cell, Phase& phase)
      : m_file(file), m_cell(cell), m_phase(phase) {}

  unsigned int Store(const ZrByteArray& data, unsigned long long version) {
    return StorePiece(data, data.GetSize(), 0, version);
  }
  unsigned int StoreInTwoPieces(const ZrByteArray& data, unsigned long long version) {
    const auto half = (data.GetSize() + 1) / 2;
    const unsigned int result =
        StorePiece(ZrByteArray(data.GetData(), half), data.GetSize(), 0, version);
    if (result != Zarn::ZrResult::kOk || half == data.GetSize()) return result;
    return StorePiece(ZrByteArray(data.GetData() + half, data.GetSize() - half), data.GetSize(),
                      half, version);
  }
  bool Holds(const ZrByteArray& expected, unsigned long long version, ZrByteArray& tile) {
    unsigned long long filled = 0;
    const auto start = Clock::now();
    const unsigned int result = m_file.Lookup(m_cell.row, m_cell.col, tile, filled, version);
    m_phase.busy += Clock::now() - start;
    m_phase.bytes += tile.GetSize();
    return result == Zarn::ZrResult::kOk && filled == expected.GetSize() &&
           tile.GetSize() == filled && std::memcmp(tile.GetData(), expected.GetData(), filled) == 0;
  }

 private:
  unsigned int StorePiece(const ZrByteArray& data, unsigned long long capacity,
                          unsigned long long offset, unsigned long long version) {
    const auto start = Clock::now();
    const unsigned int result =
        m_file.SetAt(m_cell.row, m_cell.col, data, capacity, offset, version);
    m_phase.busy += Clock::now() - start;
    m_phase.bytes += data.GetSize();
    return result;
  }

  ZrCompactFile& m_file;
  Cell m_cell;
  Phase& m_phase;
};

// False if a file could not be read or stored.
bool StoreAll(const Plan& plan, ZrCompactFile& container, Phase& phase) {
  ProgressBar bar("storing", plan.files.size());
  ZrByteArray data;
  for (std::size_t i = 0; i < plan.files.size(); ++i) {
    bar.Show(i);
    const PelmUnicodeString& path = plan.files[i];
    TileAccess tile(container, plan.CellOf(i), phase);
    if (!LoadFile(path, data)) {
      std::fprintf(stderr, "cannot read %s\n", path.ToUtf8().c_str());
      return false;
    }
    unsigned int result = IsStoredInPieces(i) ? tile.StoreInTwoPieces(data, kFileVersion)
                                              : tile.Store(data, kFileVersion);
    if (result == Zarn::ZrResult::kOk && HasSecondVersion(i))
      result = tile.Store(PathTile(path), kPathVersion);
    if (result != Zarn::ZrResult::kOk) {
      std::fprintf(stderr, "storing %s answered %u\n", path.ToUtf8().c_str(), result);
      return false;
    }
    ++phase.tiles;
  }
  return true;
}

// Returns the number of tiles that differ from their files.
std::size_t CompareAll(const Plan& plan, ZrCompactFile& container, Phase& phase) {
  ProgressBar bar("reading", plan.files.size());
  ZrByteArray expected;
  ZrByteArray buffer;
  std::size_t mismatches = 0;
  for (std::size_t i = 0; i < plan.files.size(); ++i) {
    bar.Show(i);
    const PelmUnicodeString& path = plan.files[i];
    TileAccess tile(container, plan.CellOf(i), phase);
    bool same = LoadFile(path, expected) && tile.Holds(expected, kFileVersion, buffer);
    if (HasSecondVersion(i)) same = same && tile.Holds(PathTile(path), kPathVersion, buffer);
    if (!same) std::fprintf(stderr, "differs: %s\n", path.ToUtf8().c_str());
    mismatches += same ? 0 : 1;
    ++phase.tiles;
  }
  return mismatches;
}

int Run(const fs::path& folder, const PelmUnicodeString& target) {
  const Plan plan = MakePlan(folder, target);
  if (plan.files.empty()) {
    std::fprintf(stderr, "no file to store under %s\n", folder.c_str());
    return 1;
  }
  ZrCompactFile container;
  const unsigned int result =
      container.Create(target, plan.side, plan.side, u"", ZrCompactFile::kReplace);
  if (result != Zarn::ZrResult::kOk) {
    std::fprintf(stderr, "creating %s answered %u\n", target.ToUtf8().c_str(), result);
    return 1;
  }

  Phase stored;
  Phase read;
  if (!StoreAll(plan, container, stored)) return 1;
  container.Close();
  if (container.Open(target, u"", ZrCompactFile::kReadOnly) != Zarn::ZrResult::kOk) return 1;
  const std::size_t mismatches = CompareAll(plan, container, read);
  const std::uintmax_t fileSize = fs::file_size(target.ToUtf8());

  std::printf("%-12s %u x %u, %s\n", "grid", plan.side, plan.side, target.ToUtf8().c_str());
  std::printf("%-12s %14zu\n", "tiles", stored.tiles);
  std::printf("%-12s %14llu\n", "bytes", stored.bytes);
  std::printf("%-12s %14llu\n", "file size", static_cast<unsigned long long>(fileSize));
  std::printf("%-12s %14.0f MB/s\n", "written", stored.MegabytesPerSecond());
  std::printf("%-12s %14.0f MB/s\n", "read", read.MegabytesPerSecond());
  std::printf("%-12s %14zu\n", "mismatches", mismatches);
  return mismatches == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s FOLDER FILE\n", argv[0]);
    return 2;
  }
  return Run(argv[1], PelmUnicodeString::FromUtf8(argv[2]));
}
