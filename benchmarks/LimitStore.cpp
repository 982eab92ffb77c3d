#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <mutex>

#include "Stores.h"
#include "Support.h"

namespace Bench {
namespace {

constexpr std::size_t kHeadSize = 44;
constexpr off_t kIndexStart = 100;
constexpr std::size_t kBatchBytes = 1 << 20;
constexpr std::size_t kBatchParts = 1024;  // what one call takes
const std::array<unsigned char, kHeadSize> kHead = {};

iovec Part(const void* bytes, std::size_t size) { return {const_cast<void*>(bytes), size}; }

void Write(int file, const void* bytes, std::size_t size, off_t position) {
  Check(::pwrite(file, bytes, size, position) == static_cast<ssize_t>(size));
}

void Write(int file, const std::vector<iovec>& parts, std::size_t size, off_t position) {
  Check(::pwritev(file, parts.data(), static_cast<int>(parts.size()), position) ==
        static_cast<ssize_t>(size));
}

off_t SizeOf(int file) {
  struct stat status = {};
  Check(::fstat(file, &status) == 0);
  return status.st_size;
}

class LimitStore : public Store {
 public:
  LimitStore(const std::filesystem::path& folder, const Tiles& tiles, Access access);
  ~LimitStore() override;
  LimitStore(const LimitStore&) = delete;
  LimitStore& operator=(const LimitStore&) = delete;

  void Put(unsigned int tile, const Zarn::ZrByteArray& data) override;
  void PutBatch(const Batch& batch) override;
  std::unique_ptr<Reader> NewReader() override;
  std::unique_ptr<Reader> NewMappedReader() override;

 private:
  class PlainReader;
  class MappedReader;

  std::size_t GetEntrySize() const { return m_tiles.IsNamed() ? 16 : 8; }
  off_t GetEntryPlace(unsigned int tile) const {
    return kIndexStart + static_cast<off_t>(tile * GetEntrySize());
  }
  void WriteCount();
  void Map();

  const Tiles& m_tiles;
  int m_file;
  off_t m_end;
  std::vector<off_t> m_positions;   // of records; 0: none
  std::vector<std::size_t> m_room;  // for their payloads
  std::mutex m_mappingMutex;
  void* m_mapping = nullptr;
  std::size_t m_mappedSize = 0;
};

class LimitStore::PlainReader : public Reader {
 public:
  explicit PlainReader(const LimitStore& store)
      : m_store(store), m_buffer(store.m_tiles.payload.size()) {}

  Bytes Get(unsigned int tile) override {
    const std::size_t size = m_store.m_room[tile];
    Check(::pread(m_store.m_file, m_buffer.data(), size,
                  m_store.m_positions[tile] + off_t{kHeadSize}) == static_cast<ssize_t>(size));
    return {m_buffer.data(), size};
  }

 private:
  const LimitStore& m_store;
  std::vector<unsigned char> m_buffer;
};

class LimitStore::MappedReader : public Reader {
 public:
  explicit MappedReader(const LimitStore& store)
      : m_store(store), m_buffer(store.m_tiles.payload.size()) {}

  Bytes Get(unsigned int tile) override {
    std::memcpy(
        m_buffer.data(),
        static_cast<unsigned char*>(m_store.m_mapping) + m_store.m_positions[tile] + kHeadSize,
        m_store.m_room[tile]);
    return {m_buffer.data(), m_store.m_room[tile]};
  }

 private:
  const LimitStore& m_store;
  std::vector<unsigned char> m_buffer;
};

LimitStore::LimitStore(const std::filesystem::path& folder, const Tiles& tiles, Access access)
    : m_tiles(tiles), m_positions(tiles.Count()), m_room(tiles.Count()) {
  m_file = ::open((folder / "limit").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  m_end = GetEntryPlace(tiles.Count());
  if (access == Access::kMake) {
    Check(::posix_fallocate(m_file, 0, m_end) == 0);
    return;
  }
  m_end = SizeOf(m_file);
  for (unsigned int i = 0; i < tiles.Count(); ++i) {
    Check(::pread(m_file, &m_positions[i], sizeof m_positions[i], GetEntryPlace(i)) > 0);
    if (m_positions[i] != 0) m_room[i] = tiles.sizes[i];
  }
}

LimitStore::~LimitStore() {
  if (m_mapping != nullptr) ::munmap(m_mapping, m_mappedSize);
  ::close(m_file);
}

// Maps the file as long as it is, when that is first asked for.
void LimitStore::Map() {
  const std::lock_guard guard(m_mappingMutex);
  if (m_mapping != nullptr) return;
  m_mappedSize = static_cast<std::size_t>(m_end);
  m_mapping = ::mmap(nullptr, m_mappedSize, PROT_READ, MAP_SHARED, m_file, 0);
  Check(m_mapping != MAP_FAILED && ::madvise(m_mapping, m_mappedSize, MADV_RANDOM) == 0);
}

void LimitStore::WriteCount() {
  constexpr char kCount[36] = {};
  Write(m_file, kCount, sizeof kCount, 64);
}

void LimitStore::Put(unsigned int tile, const Zarn::ZrByteArray& data) {
  const std::size_t size = data.GetSize();
  const bool isNew = m_positions[tile] == 0;
  if (size > m_room[tile]) {
    m_positions[tile] = m_end;
    m_room[tile] = size;
    m_end += static_cast<off_t>(kHeadSize + size);
  }
  const std::array<off_t, 2> entry = {m_positions[tile], 0};
  const iovec parts[] = {Part(kHead.data(), kHeadSize), Part(data.GetData(), size)};
  Check(::pwritev(m_file, parts, 2, m_positions[tile]) == static_cast<ssize_t>(kHeadSize + size));
  Write(m_file, entry.data(), GetEntrySize(), GetEntryPlace(tile));
  if (isNew && m_tiles.IsNamed()) WriteCount();
}

void LimitStore::PutBatch(const Batch& batch) {
  Check(batch.step == 1);
  std::vector<iovec> parts;
  std::size_t bytes = 0;
  const auto flush = [&] {
    Write(m_file, parts, bytes, m_end);
    m_end += static_cast<off_t>(bytes);
    parts.clear();
    bytes = 0;
  };
  for (std::size_t i = 0; i < batch.data.size(); ++i) {
    m_positions[batch.first + i] = m_end + static_cast<off_t>(bytes);
    m_room[batch.first + i] = batch.data[i].GetSize();
    parts.push_back(Part(kHead.data(), kHeadSize));
    parts.push_back(Part(batch.data[i].GetData(), batch.data[i].GetSize()));
    bytes += kHeadSize + batch.data[i].GetSize();
    if (bytes >= kBatchBytes || parts.size() == kBatchParts) flush();
  }
  if (bytes != 0) flush();
  std::vector<off_t> entries;
  for (std::size_t i = 0; i < batch.data.size(); ++i) {
    entries.push_back(m_positions[batch.first + i]);
    if (m_tiles.IsNamed()) entries.push_back(0);
  }
  Write(m_file, entries.data(), entries.size() * sizeof entries[0], GetEntryPlace(batch.first));
  if (m_tiles.IsNamed()) WriteCount();
}

std::unique_ptr<Reader> LimitStore::NewReader() { return std::make_unique<PlainReader>(*this); }

std::unique_ptr<Reader> LimitStore::NewMappedReader() {
  Map();
  return std::make_unique<MappedReader>(*this);
}

}  // namespace

std::unique_ptr<Store> OpenLimit(const std::filesystem::path& folder, const Tiles& tiles,
                                 Access access) {
  return std::make_unique<LimitStore>(folder, tiles, access);
}

}  // namespace Bench
