#include "Store.h"

#include <pthread.h>

#include <chrono>
#include <system_error>
#include <utility>

#include "Errors.h"

namespace hxpy {
namespace {

using Zarn::ZrResult;

unsigned int g_forks = 0;  // from the first process to this one

}  // namespace

thread_local int Store::Use::s_depth = 0;

void WatchForks() {
  static const int result = ::pthread_atfork(nullptr, nullptr, [] { ++g_forks; });
  if (result != 0) throw std::bad_alloc();
}

Archive::Archive(hx::Container file) {
  if (file.layout().is_grid()) {
    kind = Kind::kGrid;
    grid = std::move(file);
    layers.push_back({std::nullopt, &grid});
  } else {
    kind = Kind::kNames;
    set = hx::Tileset(std::move(file));
    layers.push_back({std::nullopt, set.names()});
  }
}

Archive::Archive(hx::Tileset folder) : set(std::move(folder)), kind(Kind::kGrids) {
  for (const hx::ZoomRange& range : set.ranges())
    layers.push_back({range, set.grid(range.zoom)});
}

std::unique_ptr<Archive> Archive::Open(const std::filesystem::path& path,
                                       const hx::Options& options) {
  std::error_code ignored;
  return std::filesystem::is_directory(path, ignored)
             ? std::make_unique<Archive>(hx::Tileset::open(path, options))
             : std::make_unique<Archive>(hx::Container::open(path, options));
}

Store::Store(std::unique_ptr<Archive> archive, std::string path)
    : m_archive(std::move(archive)), m_path(std::move(path)), m_process(g_forks) {}

// What the parent process has open is not the child's to close.
Store::~Store() {
  if (m_process != g_forks)
    static_cast<void>(m_archive.release());
  else if (m_archive != nullptr)
    WithoutLock([this] { m_archive.reset(); });
}

Store::Use::Use(Store& store) : m_store(store) {
  CheckFork();
  if (store.IsClosed())
    Throw(ZrResult::kNotOpen, hx::Cause::kNotOpen, store.m_path, "use the closed object of");
  ++store.m_users;
  ++s_depth;
}

Store::Use::~Use() {
  --s_depth;
  if (--m_store.m_users > 0 || !m_store.m_isClosing) return;
  const std::lock_guard lock(m_store.m_mutex);
  m_store.m_change.notify_all();
}

// The container looks whether a tile is there before it removes it. Within a compaction's progress
// this does not wait: whoever removes one may wait for the compaction.
bool Store::Use::Erase(const Place& place, const std::optional<hx::Stamp>& stamp) const {
  std::unique_lock one(m_store.m_removal, std::defer_lock);
  if (s_depth == 1) one.lock();
  return stamp ? place.container->erase(place.key, *stamp) : place.container->erase(place.key);
}

void Store::Use::CheckFork() const {
  if (m_store.m_process != g_forks) ThrowForked(m_store.m_path);
}

void Store::Use::CheckSignals() const {
  if (PyErr_CheckSignals() != 0) ThrowSet();
  CheckFork();
}

// The waiting ends from time to time, to see whether someone has pressed a key.
void Store::Close() {
  static constexpr std::chrono::milliseconds kPatience{20};
  if (m_process != g_forks) {
    m_isClosing = true;
    return;
  }
  if (Use::s_depth > 0 && m_users > 0)
    throw std::runtime_error(
        "a file in use cannot be closed by what runs within a call: a function "
        "that it was given, or the handler of a signal");
  m_isClosing = true;
  while (m_users > 0) {
    WithoutLock([this] {
      std::unique_lock lock(m_mutex);
      m_change.wait_for(lock, kPatience);
    });
    if (PyErr_CheckSignals() != 0) ThrowSet();
  }
  if (auto archive = std::move(m_archive); archive != nullptr)
    WithoutLock([&] { archive.reset(); });
}

std::optional<Store::Use::Place> Store::Use::Find(const Address& address) const {
  using Kind = Archive::Kind;
  const Archive& archive = **this;
  const auto fail = [&](const char* action) {
    Throw(ZrResult::kWrongFile, hx::Cause::kWrongKind, m_store.m_path, action);
  };
  if (archive.kind == Kind::kGrid) {
    if (address.kind != Address::Kind::kCell) fail("find a key that is no (row, col) in");
    if (!address.isPossible) return std::nullopt;
    return Place{archive.layers[0].container, address.cell};
  }
  if (address.kind == Address::Kind::kCell) fail("find a (row, col) in");
  if (!address.isPossible) return std::nullopt;
  const bool isName = address.kind == Address::Kind::kName;
  if (archive.kind == Kind::kNames)
    return Place{archive.layers[0].container,
                 isName ? hx::Key(address.name) : hx::Key(address.tile)};
  const auto tile = isName ? hx::Tile::parse(address.name) : std::optional(address.tile);
  if (!tile) fail("find a name that is no \"z/x/y\" in");
  for (const auto& [range, container] : archive.layers)
    if (range->holds(*tile))
      return Place{container, hx::Cell{tile->y - range->first_row, tile->x - range->first_col}};
  return std::nullopt;
}

Store::Use::Place Store::Use::FindToStore(const Address& address) const {
  const auto place = Find(address);
  if (!place) Throw(ZrResult::kWriteFailure, hx::Cause::kOutOfRange, m_store.m_path, "store into");
  return *place;
}

}  // namespace hxpy
