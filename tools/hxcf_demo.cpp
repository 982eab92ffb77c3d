// Packs the files of a folder into a grid file, one per cell, and into a naming file, by their
// paths; compacts both, reads every file back from them and compares. Some tiles are stored in
// pieces, some get a second version, and some one that is removed again.

#include <unistd.h>

#include <algorithm>
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

// The files, and the smallest square grid that has a cell for each.
struct Plan {
  std::vector<PelmUnicodeString> files;
  unsigned int side = 1;
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

// Left out: empty files (a tile has at least one byte), names that are not UTF-8 or longer than the
// library takes, files that may not be read, and the containers themselves.
bool CanBeStored(const fs::directory_entry& file, const PelmUnicodeString& path,
                 const std::vector<PelmUnicodeString>& targets) {
  constexpr std::size_t kMaxName = 128;
  std::error_code error;
  return file.is_regular_file(error) && file.file_size(error) > 0 && !error &&
         path.ToUtf8() == file.path().string() && path.GetLength() <= kMaxName &&
         std::find(targets.begin(), targets.end(), path) == targets.end() &&
         ::access(file.path().c_str(), R_OK) == 0;
}

Plan MakePlan(const fs::path& folder, const std::vector<PelmUnicodeString>& targets) {
  Plan plan;
  std::error_code error;
  const auto options = fs::directory_options::skip_permission_denied;
  for (fs::recursive_directory_iterator it(folder, options, error), end; !error && it != end;
       it.increment(error)) {
    const PelmUnicodeString path = PelmUnicodeString::FromUtf8(it->path().string());
    if (CanBeStored(*it, path, targets)) plan.files.push_back(path);
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
constexpr unsigned long long kPathVersion = 2;   // a newer one that holds the file's path
constexpr unsigned long long kDraftVersion = 3;  // one that is removed again

bool IsStoredInPieces(std::size_t file) { return file % 50 == 0; }
bool HasSecondVersion(std::size_t file) { return file % 50 == 25; }
bool HadDraft(std::size_t file) { return file % 5 == 2; }

ZrByteArray PathTile(const PelmUnicodeString& path) {
  const std::string text = path.ToUtf8();
  return ZrByteArray(text.data(), text.size());
}

/// The container of a run, whose tiles are the files of the plan: each in the cell of its number,
/// or under its path. Measures what the library takes.
class Container {
 public:
  Container(const Plan& plan, bool named, const PelmUnicodeString& path)
      : m_plan(plan), m_named(named), m_path(path) {}

  unsigned int Create() {
    if (m_named) return m_file.Create(m_path, kFirstCapacity, u"", ZrCompactFile::kReplace);
    return m_file.Create(m_path, m_plan.side, m_plan.side, u"", ZrCompactFile::kReplace);
  }
  unsigned int OpenForReading() {
    m_file.Close();
    return m_file.Open(m_path, u"", ZrCompactFile::kReadOnly);
  }
  unsigned int Store(std::size_t tile, const ZrByteArray& data, unsigned long long version,
                     Phase& phase) {
    return StorePiece(tile, data, data.GetSize(), 0, version, phase);
  }
  unsigned int StoreInTwoPieces(std::size_t tile, const ZrByteArray& data,
                                unsigned long long version, Phase& phase) {
    const auto half = (data.GetSize() + 1) / 2;
    const unsigned int result =
        StorePiece(tile, ZrByteArray(data.GetData(), half), data.GetSize(), 0, version, phase);
    if (result != Zarn::ZrResult::kOk || half == data.GetSize()) return result;
    const ZrByteArray rest(data.GetData() + half, data.GetSize() - half);
    return StorePiece(tile, rest, data.GetSize(), half, version, phase);
  }
  unsigned int Remove(std::size_t tile, unsigned long long version) {
    return m_named ? m_file.Remove(m_plan.files[tile], version)
                   : m_file.Remove(RowOf(tile), ColOf(tile), version);
  }
  unsigned int Compact() {
    ProgressBar bar("compacting", kPercent);
    return m_file.Compact([&bar](unsigned long long done, unsigned long long total) {
      bar.Show(done * kPercent / total);
      return true;
    });
  }
  bool Holds(std::size_t tile, const ZrByteArray& expected, unsigned long long version,
             ZrByteArray& buffer, Phase& phase) {
    unsigned long long filled = 0;
    const auto start = Clock::now();
    const unsigned int result =
        m_named ? m_file.Lookup(m_plan.files[tile], buffer, filled, version)
                : m_file.Lookup(RowOf(tile), ColOf(tile), buffer, filled, version);
    phase.busy += Clock::now() - start;
    phase.bytes += buffer.GetSize();
    return result == Zarn::ZrResult::kOk && filled == expected.GetSize() &&
           buffer.GetSize() == filled &&
           std::memcmp(buffer.GetData(), expected.GetData(), filled) == 0;
  }

 private:
  static constexpr unsigned long long kFirstCapacity = 128;  // it grows
  static constexpr unsigned long long kPercent = 100;

  unsigned int RowOf(std::size_t tile) const {
    return static_cast<unsigned int>(tile / m_plan.side);
  }
  unsigned int ColOf(std::size_t tile) const {
    return static_cast<unsigned int>(tile % m_plan.side);
  }
  unsigned int StorePiece(std::size_t tile, const ZrByteArray& data, unsigned long long capacity,
                          unsigned long long offset, unsigned long long version, Phase& phase) {
    const auto start = Clock::now();
    const unsigned int result =
        m_named ? m_file.SetAt(m_plan.files[tile], data, capacity, offset, version)
                : m_file.SetAt(RowOf(tile), ColOf(tile), data, capacity, offset, version);
    phase.busy += Clock::now() - start;
    phase.bytes += data.GetSize();
    return result;
  }

  const Plan& m_plan;
  bool m_named;
  PelmUnicodeString m_path;
  ZrCompactFile m_file;
};

// False if a file could not be read or stored.
bool StoreAll(const Plan& plan, Container& container, Phase& phase) {
  ProgressBar bar("storing", plan.files.size());
  ZrByteArray data;
  for (std::size_t i = 0; i < plan.files.size(); ++i) {
    bar.Show(i);
    const PelmUnicodeString& path = plan.files[i];
    if (!LoadFile(path, data)) {
      std::fprintf(stderr, "cannot read %s\n", path.ToUtf8().c_str());
      return false;
    }
    unsigned int result = IsStoredInPieces(i)
                              ? container.StoreInTwoPieces(i, data, kFileVersion, phase)
                              : container.Store(i, data, kFileVersion, phase);
    if (result == Zarn::ZrResult::kOk && HasSecondVersion(i))
      result = container.Store(i, PathTile(path), kPathVersion, phase);
    if (result == Zarn::ZrResult::kOk && HadDraft(i)) {
      result = container.Store(i, data, kDraftVersion, phase);
      if (result == Zarn::ZrResult::kOk) result = container.Remove(i, kDraftVersion);
    }
    if (result != Zarn::ZrResult::kOk) {
      std::fprintf(stderr, "storing %s answered %u\n", path.ToUtf8().c_str(), result);
      return false;
    }
    ++phase.tiles;
  }
  return true;
}

// Returns the number of tiles that differ from their files.
std::size_t CompareAll(const Plan& plan, Container& container, Phase& phase) {
  ProgressBar bar("reading", plan.files.size());
  ZrByteArray expected;
  ZrByteArray buffer;
  std::size_t mismatches = 0;
  for (std::size_t i = 0; i < plan.files.size(); ++i) {
    bar.Show(i);
    const PelmUnicodeString& path = plan.files[i];
    bool same =
        LoadFile(path, expected) && container.Holds(i, expected, kFileVersion, buffer, phase);
    if (HasSecondVersion(i))
      same = same && container.Holds(i, PathTile(path), kPathVersion, buffer, phase);
    if (!same) std::fprintf(stderr, "differs: %s\n", path.ToUtf8().c_str());
    mismatches += same ? 0 : 1;
    ++phase.tiles;
  }
  return mismatches;
}

// One line of the table. False if anything went wrong.
bool RunOne(const Plan& plan, bool named, const PelmUnicodeString& target) {
  Container container(plan, named, target);
  Phase stored;
  Phase read;
  const unsigned int created = container.Create();
  if (created != Zarn::ZrResult::kOk) {
    std::fprintf(stderr, "creating %s answered %u\n", target.ToUtf8().c_str(), created);
    return false;
  }
  if (!StoreAll(plan, container, stored)) return false;
  const std::uintmax_t before = fs::file_size(target.ToUtf8());
  const unsigned int compacted = container.Compact();
  if (compacted != Zarn::ZrResult::kOk) {
    std::fprintf(stderr, "compacting %s answered %u\n", target.ToUtf8().c_str(), compacted);
    return false;
  }
  if (container.OpenForReading() != Zarn::ZrResult::kOk) return false;
  const std::size_t mismatches = CompareAll(plan, container, read);
  std::printf("%-6s %7zu %11llu %11ju %11ju %8.0f %8.0f %10zu  %s\n", named ? "names" : "grid",
              stored.tiles, stored.bytes, before, fs::file_size(target.ToUtf8()),
              stored.MegabytesPerSecond(), read.MegabytesPerSecond(), mismatches,
              target.ToUtf8().c_str());
  return mismatches == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s FOLDER GRID-FILE NAMING-FILE\n", argv[0]);
    return 2;
  }
  const auto gridFile = PelmUnicodeString::FromUtf8(argv[2]);
  const auto namingFile = PelmUnicodeString::FromUtf8(argv[3]);
  const Plan plan = MakePlan(argv[1], {gridFile, namingFile});
  if (plan.files.empty()) {
    std::fprintf(stderr, "no file to store under %s\n", argv[1]);
    return 1;
  }
  std::printf("%-6s %7s %11s %11s %11s %8s %8s %10s\n", "", "tiles", "bytes", "file size",
              "compacted", "MB/s in", "MB/s out", "mismatches");
  const bool gridIsFine = RunOne(plan, false, gridFile);
  const bool namesAreFine = RunOne(plan, true, namingFile);
  return gridIsFine && namesAreFine ? 0 : 1;
}
