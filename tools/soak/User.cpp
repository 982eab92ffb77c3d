#include "User.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>

namespace Soak {

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;

namespace {

ZrCompactFile::ZrOpenMode ModeOf(Kind kind, bool mapped) {
  const bool isReadOnly = kind == Kind::kReadOnly || kind == Kind::kOtherUser;
  return ZrCompactFile::kProcessLock |
         (isReadOnly ? ZrCompactFile::kReadOnly : ZrCompactFile::kCreateMissing) |
         (mapped ? ZrCompactFile::kMapped : 0);
}

PelmUnicodeString NameOf(std::uint32_t tile) {
  return PelmUnicodeString::FromUtf8("tile " + std::to_string(tile));
}

// One byte scrambles a header, so many passwords are as good as another one: who finds the file
// open by that would take it for not changed. These 64, and none, give different bytes.
PelmUnicodeString PasswordOf(std::uint32_t number) {
  constexpr char16_t kFirst = 0x4B88;
  const auto unit = static_cast<char16_t>(kFirst + number % 64);
  return number == 0 ? PelmUnicodeString() : PelmUnicodeString(&unit, 1);
}

}  // namespace

File::File(const std::filesystem::path& folder, bool named, Kind kind, bool mapped)
    : m_path(PelmUnicodeString::FromUtf8((folder / (named ? "names.cf" : "grid.cf")).string())),
      m_named(named),
      m_isLight(kind == Kind::kLight || kind == Kind::kStub),
      m_isStub(kind == Kind::kStub),
      m_mode(ModeOf(kind, mapped)) {}

bool File::Create() {
  const auto mode = m_mode | ZrCompactFile::kReplace;
  m_password = g_ledger->passwords[m_named] = 0;
  m_mayWrite = true;
  return (m_named ? m_file.Create(m_path, 1ULL, u"", mode)
                  : m_file.Create(m_path, kSide, kSide, u"", mode)) == ZrResult::kOk;
}

bool File::Open() {
  m_mayWrite = ::faccessat(AT_FDCWD, m_path.ToUtf8().c_str(), W_OK, AT_EACCESS) == 0;
  if (m_isStub) m_stub.SetPath(m_path);
  const auto isOpen = [&] {
    return m_password != kNoPassword ? ZrResult::kOk : ZrResult::kNotOpen;
  };
  return Try(isOpen) == ZrResult::kOk;
}

Sight File::Lookup(std::uint32_t tile, std::uint32_t asked) {
  ZrByteArray data;
  unsigned long long filled = 0;
  const unsigned int result = Try([&] { return Read(tile, asked, data, filled); });
  return Sight(tile, asked, result, data, filled);
}

unsigned int File::Read(std::uint32_t tile, std::uint32_t asked, ZrByteArray& data,
                        unsigned long long& filled) {
  if (!m_isLight)
    return At(tile,
              [&](auto... place) { return m_file.Lookup(place..., data, filled, asked + 1); });
  const unsigned int result = m_reader.Lookup(tile / kSide, tile % kSide, data, filled, asked + 1);
  return result == ZrResult::kOk && data.IsEmpty() ? ZrResult::kNotFound : result;
}

bool File::AllFit(std::uint32_t tile, const Versions& versions) {
  for (std::uint32_t asked = FirstToAsk(); asked <= kNewest; ++asked)
    if (!Lookup(tile, asked).Fits(versions)) return false;
  return true;
}

unsigned int File::Apply(const std::vector<std::uint32_t>& tiles, bool isLimited) {
  const std::uint32_t first = tiles[0], stamp = g_ledger->tiles[first].stamp;
  if (g_ledger->tiles[first].kind != Tile::kRemove)
    return Try([&] { return Store(tiles); }, isLimited);
  const auto remove = [&](auto... place) { return m_file.Remove(place..., stamp + 1); };
  return Try([&] { return At(first, remove); }, isLimited);
}

unsigned int File::Store(const std::vector<std::uint32_t>& tiles) {
  std::vector<ZrByteArray> data(tiles.size());
  std::vector<ZrCompactFile::ZrCellStore> cells;
  std::vector<ZrCompactFile::ZrNameStore> names;
  for (const std::uint32_t number : tiles) {
    const Tile& tile = g_ledger->tiles[number];
    const Version before = tile.acknowledged[tile.stamp], after = tile.after;
    const auto payload = Payload(number, tile.stamp, after.generation);
    const std::uint32_t offset = tile.kind == Tile::kContinue ? before.filled : 0;
    ZrByteArray& piece = data[cells.size()];
    piece = ZrByteArray(payload.data() + offset, after.filled - offset);
    cells.push_back(
        {number / kSide, number % kSide, &piece, payload.size(), offset, tile.stamp + 1ULL});
    names.push_back({NameOf(number), &piece, payload.size(), offset, tile.stamp + 1ULL});
  }
  const ZrCompactFile::ZrCellStore& cell = cells[0];
  if (m_isStub)
    return m_stub.Write(cell.row, cell.col, *cell.data, cell.capacity, cell.offset, cell.version)
               ? ZrResult::kOk
               : ZrResult::kWriteFailure;
  std::vector<unsigned int> results;
  if (tiles.size() > 1)
    return m_named ? m_file.SetBatch(names, results) : m_file.SetBatch(cells, results);
  return At(tiles[0], [&](auto... place) {
    return m_file.SetAt(place..., data[0], cells[0].capacity, cells[0].offset, cells[0].version);
  });
}

std::uint64_t File::GetFileSize() const {
  std::error_code ignored;
  return std::filesystem::file_size(m_path.ToUtf8(), ignored);
}

// Another process may be finishing an earlier compaction, but not for long.
unsigned int File::Compact() {
  unsigned int result = ZrResult::kNotCreated;
  for (int i = 0; i < 100 && result == ZrResult::kNotCreated; ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    result = Try([&] { return m_file.Compact(); });
  }
  return result;
}

unsigned int File::Verify() {
  ZrCompactFile::ZrVerifySummary summary;
  return m_file.Verify(summary);
}

unsigned int File::ChangePassword() {
  const std::uint32_t next = ++g_ledger->passwords[m_named];
  return Try([&] {
    if (m_file.SetPassword(PasswordOf(next)) != 1) return ZrResult::kWriteFailure;
    m_password = next;
    return ZrResult::kOk;
  });
}

template <typename Call>
unsigned int File::At(std::uint32_t tile, Call call) const {
  return m_named ? call(NameOf(tile)) : call(tile / kSide, tile % kSide);
}

// An operation fails if another process has changed the password; then it is done again. Under a
// limit it may have failed for that. A user that may not write the file cannot finish the
// compaction of a killed process, nor can a light one that is open; it waits for another user to do
// so.
unsigned int File::Try(const Operation& operation, bool isLimited) {
  for (;;) {
    const std::uint32_t password = m_password;
    const std::uint32_t compactions = g_ledger->compactionsBegun[m_named];
    const bool wasCompacting = g_ledger->MayBeCompacting(m_named);
    const unsigned int result = operation();
    if (isLimited || result == ZrResult::kOk || result == ZrResult::kNotFound) return result;
    if (ReopenUnless(password)) continue;
    const bool isExcused = wasCompacting || g_ledger->compactionsBegun[m_named] != compactions;
    if (!isExcused || !(m_isLight || !m_mayWrite)) return result;
    ++g_ledger->waits;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Whether the file is open by another password afterwards, whichever thread has opened it, or is
// open again. No password comes twice; some are never set.
bool File::ReopenUnless(std::uint32_t before) {
  constexpr std::uint32_t kRecent = 32;
  const std::lock_guard lock(m_mutex);
  if (m_password != before) return true;
  const bool wasClosed = m_isClosed;
  const unsigned int wrong = m_isLight ? ZrResult::kReadFailure : ZrResult::kWrongFile;
  unsigned int result = wrong;
  for (std::uint32_t i = 0; i < 8 * kRecent && result == wrong; ++i) {
    const std::uint32_t latest = g_ledger->passwords[m_named];
    const std::uint32_t password = latest - std::min(i % kRecent, latest);
    result = OpenWith(PasswordOf(password));
    if (result == ZrResult::kOk) m_password = password;
  }
  return m_password != before || (wasClosed && !m_isClosed);
}

// An object that has the file open may take any password, so another one tries it first.
unsigned int File::OpenWith(const PelmUnicodeString& password) {
  unsigned int result = ZrResult::kOk;
  if (m_isLight) {
    m_reader.Close();
    result = m_reader.Open(m_path, password, ZrCompactFile::kReadOnly);
  } else {
    result = ZrCompactFile().Open(m_path, password, m_mode);
    if (result != ZrResult::kOk) return result;
    result = m_file.Open(m_path, password, m_mode);
  }
  m_isClosed = result != ZrResult::kOk;
  return result;
}

}  // namespace Soak
