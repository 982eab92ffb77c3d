#include "hx/container.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Failure.h"
#include "Walk.h"
#include "ZrCompactFile.h"

namespace hx {
namespace {

using Zarn::ZrCompactFile;
using Zarn::ZrResult;

PelmUnicodeString ToUnits(const std::filesystem::path& path) {
  return PelmUnicodeString::FromUtf8(path.native());
}

ZrCompactFile::ZrOpenMode ModeOf(const Options& options) {
  return (options.read_only ? ZrCompactFile::kReadOnly : 0) |
         (options.shared ? ZrCompactFile::kProcessLock : 0) |
         (options.mapped ? ZrCompactFile::kMapped : 0);
}

Status StatusOf(unsigned int result) noexcept {
  return result == ZrResult::kOk ? Status() : Status::last();
}

constexpr Status NoMemory() { return {ZrResult::kNotUsable, Cause::kNoMemory}; }

}  // namespace

struct Container::File {
  ~File() { engine.CloseAll(); }

  /// `call(row, column)` or `call(name)`.
  template <typename Call>
  auto At(const Key& key, Call call) {
    return key.is_cell() ? call(key.cell().row, key.cell().col)
                         : call(PelmUnicodeString::FromUtf8(key.name()));
  }

  ZrCompactFile engine;
};

Container::Container() noexcept = default;
Container::Container(Container&&) noexcept = default;
Container& Container::operator=(Container&&) noexcept = default;
Container::~Container() = default;

// Nothing is open: the calls say so as the engine does.
Container::File& Container::Use() const {
  static File closed;
  return m_file != nullptr ? *m_file : closed;
}

Status Container::try_open(const std::filesystem::path& path, const Options& options,
                           Container& container) noexcept try {
  container.close();
  auto file = std::make_unique<File>();
  const Status status =
      StatusOf(file->engine.Open(ToUnits(path), PelmUnicodeString::FromUtf8(options.password),
                                 ModeOf(options) | ZrCompactFile::kMustExist));
  if (status.ok()) container.m_file = std::move(file);
  return status;
} catch (const std::bad_alloc&) {
  return NoMemory();
}

Container Container::open(const std::filesystem::path& path, const Options& options) {
  Container container;
  if (const Status status = try_open(path, options, container); !status) Throw(status);
  return container;
}

unsigned int Container::Create(const std::filesystem::path& path, const Layout& layout,
                               const Options& options, bool replace) {
  m_file = std::make_unique<File>();
  const auto mode = ModeOf(options) | (replace ? ZrCompactFile::kReplace : 0);
  const auto password = PelmUnicodeString::FromUtf8(options.password);
  return layout.is_grid()
             ? m_file->engine.Create(ToUnits(path), layout.rows(), layout.cols(), password, mode)
             : m_file->engine.Create(ToUnits(path), std::uint64_t{layout.capacity()}, password,
                                     mode);
}

Container Container::create(const std::filesystem::path& path, const Layout& layout,
                            const Options& options) {
  Container container;
  Expect(container.Create(path, layout, options, false));
  return container;
}

Container Container::replace(const std::filesystem::path& path, const Layout& layout,
                             const Options& options) {
  Container container;
  Expect(container.Create(path, layout, options, true));
  return container;
}

// Another process may create or delete the file meanwhile.
Container Container::open_or_create(const std::filesystem::path& path, const Layout& layout,
                                    const Options& options) {
  constexpr int kTries = 10;
  for (int i = 1;; ++i) {
    Container container;
    const Status status = try_open(path, options, container);
    if (status.ok()) return container;
    if (status.cause() != Cause::kNoFile) Throw(status);
    if (container.Create(path, layout, options, false) == ZrResult::kOk) return container;
    if (i == kTries || Zarn::ZrLastError().cause != Cause::kExists) Throw();
  }
}

void Container::close() noexcept { m_file.reset(); }

std::string Container::path() const { return Use().engine.GetFullPath().ToUtf8(); }

Layout Container::layout() const {
  unsigned int first = 0, second = 0;
  return Use().engine.GetIndexInfo(first, second) == 0 ? Layout::grid(first, second)
                                                       : Layout::names(first);
}

Status Container::try_get(const Key& key, Payload& payload, Stamp stamp) const noexcept try {
  File& file = Use();
  Version version;
  const Status status = StatusOf(file.At(key, [&](const auto&... place) {
    return file.engine.Lookup(place..., payload.m_bytes, version, stamp);
  }));
  if (status.ok() || status.cause() == Cause::kNoTile) {
    payload.m_filled = version.filledLength;
    payload.m_stamp = version.stamp;
  }
  return status;
} catch (const std::bad_alloc&) {
  return NoMemory();
}

std::optional<Payload> Container::find(const Key& key, Stamp stamp) const {
  std::optional<Payload> payload(std::in_place);
  const Status status = try_get(key, *payload, stamp);
  if (status.cause() == Cause::kNoTile)
    payload.reset();
  else if (!status)
    Throw(status);
  return payload;
}

Payload Container::get(const Key& key, Stamp stamp) const {
  Payload payload;
  if (const Status status = try_get(key, payload, stamp); !status) Throw(status);
  return payload;
}

std::optional<std::size_t> Container::read(const Key& key, void* target, std::size_t size,
                                           Stamp stamp) const {
  const auto payload = find(key, stamp);
  if (!payload) return std::nullopt;
  std::memcpy(target, payload->data(), std::min(size, payload->size()));
  return payload->size();
}

bool Container::contains(const Key& key) const {
  File& file = Use();
  const auto status =
      file.At(key, [&](const auto&... place) { return file.engine.GetStatus(place...); });
  if (status == ZrCompactFile::kUnknown) Throw();
  return status != ZrCompactFile::kEmpty;
}

Status Container::try_put(const Key& key, Bytes bytes, const PutOptions& options) noexcept try {
  File& file = Use();
  return StatusOf(file.At(key, [&](const auto&... place) {
    return file.engine.SetAt(place..., bytes.data(), bytes.size(), options.capacity, options.offset,
                             options.stamp);
  }));
} catch (const std::bad_alloc&) {
  return NoMemory();
}

void Container::put(const Key& key, Bytes bytes, const PutOptions& options) {
  if (const Status status = try_put(key, bytes, options); !status) Throw(status);
}

// The first key says of which kind all are.
unsigned int Container::StoreAll(const std::vector<Put>& puts, std::vector<unsigned int>& results) {
  std::vector<Zarn::ZrCellStore> cells;
  std::vector<Zarn::ZrNameStore> names;
  const bool hasCells = !puts.empty() && puts[0].key.is_cell();
  hasCells ? cells.reserve(puts.size()) : names.reserve(puts.size());
  for (const Put& put : puts) {
    const auto add = [&](auto& stores) {
      auto& store = stores.emplace_back();
      store.bytes = put.bytes.data();
      store.size = put.bytes.size();
      store.capacity = put.options.capacity;
      store.offset = put.options.offset;
      store.version = put.options.stamp;
      return &store;
    };
    if (hasCells) {
      Zarn::ZrCellStore* const store = add(cells);
      store->row = put.key.is_cell() ? put.key.cell().row : UINT32_MAX;
      store->col = put.key.cell().col;
    } else {
      add(names)->name = PelmUnicodeString::FromUtf8(put.key.name());
    }
  }
  ZrCompactFile& engine = Use().engine;
  return hasCells ? engine.SetBatch(cells, results) : engine.SetBatch(names, results);
}

Status Container::try_put_all(const std::vector<Put>& puts,
                              std::vector<unsigned int>& results) noexcept try {
  return StatusOf(StoreAll(puts, results));
} catch (const std::bad_alloc&) {
  return NoMemory();
}

void Container::put_all(const std::vector<Put>& puts) {
  std::vector<unsigned int> results;
  Expect(StoreAll(puts, results));
}

bool Container::erase(const Key& key) {
  if (!contains(key)) return false;
  File& file = Use();
  Expect(file.At(key, [&](const auto&... place) { return file.engine.RemoveAll(place...); }));
  return true;
}

bool Container::erase(const Key& key, Stamp stamp) {
  const auto all = versions(key);
  if (std::none_of(all.begin(), all.end(), [&](const auto& v) { return v.stamp == stamp; }))
    return false;
  File& file = Use();
  Expect(file.At(key, [&](const auto&... place) { return file.engine.Remove(place..., stamp); }));
  return true;
}

std::uint64_t Container::erase_older_than(Stamp stamp) {
  unsigned long long removed = 0;
  Expect(Use().engine.RemoveOlderThan(stamp, removed));
  return removed;
}

std::vector<Version> Container::versions(const Key& key) const {
  File& file = Use();
  std::vector<Version> versions;
  const unsigned int result = file.At(
      key, [&](const auto&... place) { return file.engine.GetVersions(place..., versions); });
  if (result != ZrResult::kNotFound) Expect(result);
  return versions;
}

Cursor Container::tiles(const CursorOptions& options) const {
  const auto content =
      options.payloads ? Zarn::ZrTileCursor::kPayloads : Zarn::ZrTileCursor::kSizes;
  ZrCompactFile& engine = Use().engine;
  Cursor cursor;
  cursor.m_entry.m_walk = options.prefix.empty()
                              ? std::make_unique<Entry::Walk>(engine, content)
                              : std::make_unique<Entry::Walk>(
                                    engine, PelmUnicodeString::FromUtf8(options.prefix), content);
  return cursor;
}

std::uint64_t Container::size() const {
  Statistics statistics;
  Expect(Use().engine.GetStatistics(statistics));
  return statistics.tiles;
}

Statistics Container::statistics(const Progress& progress) const {
  Statistics statistics;
  Expect(Use().engine.GetStatistics(statistics, progress));
  return statistics;
}

void Container::set_password(std::string_view password) {
  if (Use().engine.SetPassword(PelmUnicodeString::FromUtf8(password)) != 1) Throw();
}

void Container::flush() {
  if (!Use().engine.Flush()) Throw();
}

void Container::compact(const Progress& progress) { Expect(Use().engine.Compact(progress)); }

bool Container::verify(const std::function<bool(const Finding&)>& report,
                       VerifySummary* summary) const {
  return verify(report, summary, {});
}

bool Container::verify(const std::function<bool(const Finding&)>& report, VerifySummary* summary,
                       const Progress& progress) const {
  VerifySummary own;
  bool isSound = true;
  const auto tell = [&](const Finding& finding) {
    isSound = false;
    return !report || report(finding);
  };
  const unsigned int result =
      Use().engine.Verify(summary != nullptr ? *summary : own, tell, progress);
  if (isSound) Expect(result);
  return isSound;
}

}  // namespace hx
