// Stores and lookups through the engine, beside bare system calls that move the same bytes, and
// beside LMDB and SQLite doing the same. What a store acknowledges survives the death of the
// process everywhere, and no more than that is asked of anyone: LMDB runs with MDB_NOSYNC and one
// transaction per store, SQLite with synchronous=OFF and one statement per store.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lmdb.h>
#include <sqlite3.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "RatioReporter.h"
#include "ZrCompactFile.h"

namespace {

namespace fs = std::filesystem;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

constexpr std::size_t kHeadSize = 44;

const fs::path kFolder = fs::temp_directory_path() / ("hxcf-bench-" + std::to_string(::getpid()));

void Check(bool ok) {
  if (ok) return;
  std::fprintf(stderr, "benchmark: an operation failed\n");
  std::abort();
}

/// The tiles of a benchmark: their sizes, and the order in which they are looked up.
struct Tiles {
  std::vector<std::size_t> sizes;
  std::vector<unsigned int> order;
  ZrByteArray largest;  // every tile is the beginning of this
  unsigned int side = 0;

  explicit Tiles(std::vector<std::size_t> tileSizes) : sizes(std::move(tileSizes)) {
    order.resize(sizes.size());
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    const std::vector<unsigned char> bytes(*std::max_element(sizes.begin(), sizes.end()), 0x5A);
    largest = ZrByteArray(bytes.data(), bytes.size());
    side = static_cast<unsigned int>(std::sqrt(sizes.size()));
    Check(std::size_t{side} * side == sizes.size());
  }
  unsigned int Count() const { return static_cast<unsigned int>(sizes.size()); }
  const unsigned char* Bytes() const { return largest.GetData(); }
};

Tiles EqualTiles(std::size_t count) { return Tiles(std::vector<std::size_t>(count, 8192)); }

/// The name of a tile in a map of zoom level 8.
PelmUnicodeString NameOf(unsigned int tile) {
  return PelmUnicodeString::FromUtf8("8/" + std::to_string(tile % 256) + "/" +
                                     std::to_string(tile / 256));
}

/// Sizes as a web map has them: log-normal, median 6 KiB, 200 bytes to 100 KiB.
Tiles MapTiles(std::size_t count) {
  std::mt19937 random(2);
  std::lognormal_distribution<double> distribution(std::log(6144.0), 0.9);
  std::vector<std::size_t> sizes(count);
  for (std::size_t& size : sizes)
    size = static_cast<std::size_t>(std::clamp(distribution(random), 200.0, 102400.0));
  return Tiles(std::move(sizes));
}

const Tiles kEqual = EqualTiles(4096);
const Tiles kMapPut = MapTiles(16384);
const Tiles kMapGet = MapTiles(65536);

// Each store below has Put(tile), and a Reader, of which every thread has one, with Get(tile).

/// Record and index entry by two writes, at the places where the engine would write them; the
/// payload by one read into memory of the caller's.
class Bare {
 public:
  Bare(const fs::path& folder, const Tiles& tiles) : m_tiles(tiles), m_record(kHeadSize) {
    m_fd = ::open((folder / "bare").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    m_end = 76 + 8 * tiles.Count();
    Check(m_fd >= 0 && ::ftruncate(m_fd, static_cast<off_t>(m_end)) == 0);
    m_positions.resize(tiles.Count());
  }
  ~Bare() { ::close(m_fd); }

  void Put(unsigned int i) {
    const iovec parts[] = {{m_record.data(), kHeadSize},
                           {const_cast<unsigned char*>(m_tiles.Bytes()), m_tiles.sizes[i]}};
    const std::uint64_t entry = m_end;
    Check(::pwritev(m_fd, parts, 2, static_cast<off_t>(m_end)) > 0 &&
          ::pwrite(m_fd, &entry, sizeof entry, 76 + 8 * static_cast<off_t>(i)) > 0);
    m_positions[i] = m_end + kHeadSize;
    m_end += kHeadSize + m_tiles.sizes[i];
  }
  class Reader {
   public:
    explicit Reader(Bare& store) : m_store(store), m_buffer(store.m_tiles.largest.GetSize()) {}
    void Get(unsigned int i) {
      Check(::pread(m_store.m_fd, m_buffer.data(), m_store.m_tiles.sizes[i],
                    static_cast<off_t>(m_store.m_positions[i])) > 0);
    }

   private:
    Bare& m_store;
    std::vector<unsigned char> m_buffer;
  };

 protected:
  void Write(const void* bytes, std::size_t size, off_t position) {
    Check(::pwrite(m_fd, bytes, size, position) > 0);
  }

 private:
  const Tiles& m_tiles;
  int m_fd;
  std::uint64_t m_end;
  std::vector<unsigned char> m_record;
  std::vector<std::uint64_t> m_positions;
};

template <ZrCompactFile::ZrOpenMode kMode>
class Engine {
 public:
  Engine(const fs::path& folder, const Tiles& tiles) : m_tiles(tiles) {
    const auto path = PelmUnicodeString::FromUtf8((folder / "engine.cf").string());
    Check(m_file.Create(path, tiles.side, tiles.side, u"", kMode) == 0);
  }
  void Put(unsigned int i, unsigned long long version = 5) {
    m_data.Assign(m_tiles.Bytes(), m_tiles.sizes[i]);
    Check(m_file.SetAt(i / m_tiles.side, i % m_tiles.side, m_data, 0, 0, version) == 0);
  }
  class Reader {
   public:
    explicit Reader(Engine& store) : m_store(store) {}
    void Get(unsigned int i, unsigned long long version = 5) {
      unsigned long long filled = 0;
      const unsigned int side = m_store.m_tiles.side;
      Check(m_store.m_file.Lookup(i / side, i % side, m_data, filled, version) == 0 &&
            filled == m_store.m_tiles.sizes[i]);
    }

   private:
    Engine& m_store;
    ZrByteArray m_data;
  };

 private:
  const Tiles& m_tiles;
  ZrCompactFile m_file;
  ZrByteArray m_data;
};

/// The same tiles by their names.
class Names {
 public:
  Names(const fs::path& folder, const Tiles& tiles) : m_tiles(tiles) {
    const auto path = PelmUnicodeString::FromUtf8((folder / "names.cf").string());
    Check(m_file.Create(path, tiles.Count(), u"", 4) == 0);
    for (unsigned int i = 0; i < tiles.Count(); ++i)
      m_names.push_back(NameOf(i));
  }
  void Put(unsigned int i) {
    m_data.Assign(m_tiles.Bytes(), m_tiles.sizes[i]);
    Check(m_file.SetAt(m_names[i], m_data, 0, 0, 5) == 0);
  }
  class Reader {
   public:
    explicit Reader(Names& store) : m_store(store) {}
    void Get(unsigned int i) {
      unsigned long long filled = 0;
      Check(m_store.m_file.Lookup(m_store.m_names[i], m_data, filled, 5) == 0 &&
            filled == m_store.m_tiles.sizes[i]);
    }

   private:
    Names& m_store;
    ZrByteArray m_data;
  };

 private:
  const Tiles& m_tiles;
  ZrCompactFile m_file;
  ZrByteArray m_data;
  std::vector<PelmUnicodeString> m_names;
};

/// What a new name makes the engine write: record, slot and count.
class BareNames : public Bare {
 public:
  using Bare::Bare;
  void Put(unsigned int i) {
    constexpr char kHeader[36] = {};
    Bare::Put(i);
    Write(kHeader, sizeof kHeader, 64);
  }
};

/// Keys: the number of a tile, or its name.
template <bool kNamed>
class Lmdb {
 public:
  Lmdb(const fs::path& folder, const Tiles& tiles) : m_tiles(tiles) {
    for (unsigned int i = 0; kNamed && i < tiles.Count(); ++i)
      m_names.push_back(NameOf(i).ToUtf8());
    MDB_txn* transaction = nullptr;
    Check(mdb_env_create(&m_environment) == 0 &&
          mdb_env_set_mapsize(m_environment, std::size_t{8} << 30) == 0 &&
          mdb_env_open(m_environment, (folder / "lmdb").c_str(), MDB_NOSYNC | MDB_NOSUBDIR, 0600) ==
              0 &&
          mdb_txn_begin(m_environment, nullptr, 0, &transaction) == 0 &&
          mdb_dbi_open(transaction, nullptr, kNamed ? 0 : MDB_INTEGERKEY, &m_database) == 0 &&
          mdb_txn_commit(transaction) == 0);
  }
  ~Lmdb() { mdb_env_close(m_environment); }

  void Put(unsigned int i) {
    MDB_txn* transaction = nullptr;
    MDB_val key = KeyOf(i);
    MDB_val value = {m_tiles.sizes[i], const_cast<unsigned char*>(m_tiles.Bytes())};
    Check(mdb_txn_begin(m_environment, nullptr, 0, &transaction) == 0 &&
          mdb_put(transaction, m_database, &key, &value, 0) == 0 &&
          mdb_txn_commit(transaction) == 0);
  }
  class Reader {
   public:
    explicit Reader(Lmdb& store) : m_store(store), m_buffer(store.m_tiles.largest.GetSize()) {
      Check(mdb_txn_begin(store.m_environment, nullptr, MDB_RDONLY, &m_transaction) == 0);
      mdb_txn_reset(m_transaction);
    }
    ~Reader() { mdb_txn_abort(m_transaction); }
    void Get(unsigned int i) {
      MDB_val key = m_store.KeyOf(i);
      MDB_val value;
      Check(mdb_txn_renew(m_transaction) == 0 &&
            mdb_get(m_transaction, m_store.m_database, &key, &value) == 0);
      std::memcpy(m_buffer.data(), value.mv_data, value.mv_size);
      mdb_txn_reset(m_transaction);
    }

   private:
    Lmdb& m_store;
    MDB_txn* m_transaction = nullptr;
    std::vector<unsigned char> m_buffer;
  };

 private:
  MDB_val KeyOf(unsigned int& i) {
    if (kNamed) return {m_names[i].size(), m_names[i].data()};
    return {sizeof i, &i};
  }

  const Tiles& m_tiles;
  std::vector<std::string> m_names;
  MDB_env* m_environment = nullptr;
  MDB_dbi m_database = 0;
};

template <bool kNamed>
class Sqlite {
 public:
  Sqlite(const fs::path& folder, const Tiles& tiles) : m_tiles(tiles), m_path(folder / "sqlite") {
    for (unsigned int i = 0; kNamed && i < tiles.Count(); ++i)
      m_names.push_back(NameOf(i).ToUtf8());
    m_connection = Connect();
    Run(kNamed ? "CREATE TABLE tiles (id TEXT PRIMARY KEY, data BLOB)"
               : "CREATE TABLE tiles (id INTEGER PRIMARY KEY, data BLOB)");
    m_insert = Prepare(m_connection, "INSERT OR REPLACE INTO tiles VALUES (?, ?)");
  }
  ~Sqlite() {
    sqlite3_finalize(m_insert);
    sqlite3_close(m_connection);
  }

  void Put(unsigned int i) {
    BindKey(m_insert, i);
    sqlite3_bind_blob64(m_insert, 2, m_tiles.Bytes(), m_tiles.sizes[i], SQLITE_STATIC);
    Check(sqlite3_step(m_insert) == SQLITE_DONE);
    sqlite3_reset(m_insert);
  }
  class Reader {
   public:
    explicit Reader(Sqlite& store)
        : m_store(store),
          m_connection(store.Connect()),
          m_select(Prepare(m_connection, "SELECT data FROM tiles WHERE id = ?")),
          m_buffer(store.m_tiles.largest.GetSize()) {}
    ~Reader() {
      sqlite3_finalize(m_select);
      sqlite3_close(m_connection);
    }
    void Get(unsigned int i) {
      m_store.BindKey(m_select, i);
      Check(sqlite3_step(m_select) == SQLITE_ROW);
      const void* blob = sqlite3_column_blob(m_select, 0);
      std::memcpy(m_buffer.data(), blob,
                  static_cast<std::size_t>(sqlite3_column_bytes(m_select, 0)));
      sqlite3_reset(m_select);
    }

   private:
    Sqlite& m_store;
    sqlite3* m_connection;
    sqlite3_stmt* m_select;
    std::vector<unsigned char> m_buffer;
  };

 private:
  void BindKey(sqlite3_stmt* statement, unsigned int i) {
    if (kNamed)
      sqlite3_bind_text(statement, 1, m_names[i].data(), static_cast<int>(m_names[i].size()),
                        SQLITE_STATIC);
    else
      sqlite3_bind_int64(statement, 1, i);
  }
  sqlite3* Connect() {
    sqlite3* connection = nullptr;
    Check(sqlite3_open(m_path.c_str(), &connection) == SQLITE_OK);
    for (const char* setting : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=OFF"})
      Check(sqlite3_exec(connection, setting, nullptr, nullptr, nullptr) == SQLITE_OK);
    return connection;
  }
  void Run(const char* statement) {
    Check(sqlite3_exec(m_connection, statement, nullptr, nullptr, nullptr) == SQLITE_OK);
  }
  static sqlite3_stmt* Prepare(sqlite3* connection, const char* text) {
    sqlite3_stmt* statement = nullptr;
    Check(sqlite3_prepare_v2(connection, text, -1, &statement, nullptr) == SQLITE_OK);
    return statement;
  }

  const Tiles& m_tiles;
  std::vector<std::string> m_names;
  fs::path m_path;
  sqlite3* m_connection;
  sqlite3_stmt* m_insert;
};

fs::path EmptyFolder() {
  fs::remove_all(kFolder);
  fs::create_directories(kFolder);
  return kFolder;
}

// One iteration fills a new store, in the order of the cells; making it is not measured.
template <typename Store>
void Put(benchmark::State& state, const Tiles& tiles) {
  for (auto _ : state) {
    state.PauseTiming();
    auto store = std::make_unique<Store>(EmptyFolder(), tiles);
    state.ResumeTiming();
    for (unsigned int i = 0; i < tiles.Count(); ++i)
      store->Put(i);
    state.PauseTiming();
    store.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * tiles.Count());
}

// Every tile once, in random order, from a store filled before.
template <typename Store>
void Get(benchmark::State& state, const Tiles& tiles) {
  static std::unique_ptr<Store> store;
  if (state.thread_index() == 0) {
    store = std::make_unique<Store>(EmptyFolder(), tiles);
    for (unsigned int i = 0; i < tiles.Count(); ++i)
      store->Put(i);
  }
  std::unique_ptr<typename Store::Reader> reader;
  for (auto _ : state) {
    if (reader == nullptr) reader = std::make_unique<typename Store::Reader>(*store);
    for (const unsigned int i : tiles.order)
      reader->Get(i);
  }
  reader.reset();
  state.SetItemsProcessed(state.iterations() * tiles.Count());
}

// The older of two versions.
void GetOlder(benchmark::State& state) {
  Engine<4> store(EmptyFolder(), kEqual);
  for (const unsigned long long version : {5ULL, 9ULL})
    for (unsigned int i = 0; i < kEqual.Count(); ++i)
      store.Put(i, version);
  Engine<4>::Reader reader(store);
  for (auto _ : state)
    for (const unsigned int i : kEqual.order)
      reader.Get(i, 5);
  state.SetItemsProcessed(state.iterations() * kEqual.Count());
}

// Opens a grid of state.range(0) rows and columns that holds 1,000 tiles, and reads one.
void Open(benchmark::State& state) {
  const auto side = static_cast<unsigned int>(state.range(0));
  const auto path = PelmUnicodeString::FromUtf8((EmptyFolder() / "open.cf").string());
  ZrByteArray data("tile", 4);
  unsigned long long filled = 0;
  ZrCompactFile file;
  Check(file.Create(path, side, side, u"", 4) == 0);
  for (unsigned int i = 0; i < 1000; ++i)
    Check(file.SetAt(i * 7919 % side, i * 104729 % side, data, 0, 0, i) == 0);
  file.Close();
  for (auto _ : state) {
    Check(file.Open(path, u"", 4) == 0 && file.Lookup(0, 0, data, filled, 5) == 0);
    file.Close();
  }
}

// Opens a naming file of a million names, and looks one up.
void OpenNames(benchmark::State& state) {
  constexpr unsigned int kCount = 1000000;
  const auto path = PelmUnicodeString::FromUtf8((EmptyFolder() / "open.cf").string());
  ZrByteArray data("tile", 4);
  unsigned long long filled = 0;
  ZrCompactFile file;
  Check(file.Create(path, kCount, u"", 4) == 0);
  for (unsigned int i = 0; i < kCount; ++i)
    Check(file.SetAt(NameOf(i), data, 0, 0, 1) == 0);
  file.Close();
  for (auto _ : state) {
    Check(file.Open(path, u"", 4) == 0 && file.Lookup(NameOf(777777), data, filled, 1) == 0);
    file.Close();
  }
}

template <typename... Arguments>
benchmark::internal::Benchmark* Register(const char* name, Arguments&&... arguments) {
  return benchmark::RegisterBenchmark(name, std::forward<Arguments>(arguments)...)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Repetitions(5);
}

void RegisterAll() {
  Register("put 8 KiB/bare", Put<Bare>, kEqual);
  Register("put 8 KiB/engine", Put<Engine<4>>, kEqual);
  Register("put 8 KiB/engine with process lock", Put<Engine<12>>, kEqual);
  Register("put 8 KiB/LMDB", Put<Lmdb<false>>, kEqual);
  Register("put 8 KiB/SQLite", Put<Sqlite<false>>, kEqual);
  for (const int threads : {1, 2}) {
    Register("get 8 KiB/bare", Get<Bare>, kEqual)->Threads(threads);
    Register("get 8 KiB/engine", Get<Engine<4>>, kEqual)->Threads(threads);
    Register("get 8 KiB/engine with process lock", Get<Engine<12>>, kEqual)->Threads(threads);
    Register("get 8 KiB/LMDB", Get<Lmdb<false>>, kEqual)->Threads(threads);
    Register("get 8 KiB/SQLite", Get<Sqlite<false>>, kEqual)->Threads(threads);
  }
  Register("get 8 KiB/engine, older version", GetOlder)->Threads(1);
  Register("put map/bare", Put<Bare>, kMapPut);
  Register("put map/engine", Put<Engine<4>>, kMapPut);
  Register("put map/LMDB", Put<Lmdb<false>>, kMapPut);
  Register("put map/SQLite", Put<Sqlite<false>>, kMapPut);
  Register("get map/bare", Get<Bare>, kMapGet);
  Register("get map/engine", Get<Engine<4>>, kMapGet);
  Register("get map/LMDB", Get<Lmdb<false>>, kMapGet);
  Register("get map/SQLite", Get<Sqlite<false>>, kMapGet);
  Register("put map by name/bare", Put<BareNames>, kMapPut);
  Register("put map by name/engine", Put<Names>, kMapPut);
  Register("put map by name/LMDB", Put<Lmdb<true>>, kMapPut);
  Register("put map by name/SQLite", Put<Sqlite<true>>, kMapPut);
  Register("get map by name/bare", Get<Bare>, kMapGet);
  Register("get map by name/engine", Get<Names>, kMapGet);
  Register("get map by name/LMDB", Get<Lmdb<true>>, kMapGet);
  Register("get map by name/SQLite", Get<Sqlite<true>>, kMapGet);
  Register("open 1,000,000 names", OpenNames);
  Register("open grid", Open)->Arg(8)->Arg(16384)->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  fs::remove_all(kFolder);
}
