#include <sqlite3.h>

#include <cstring>

#include "Stores.h"
#include "Support.h"

namespace Bench {
namespace {

constexpr int kMostWait = 10000;  // milliseconds, for another process's lock

/// A connection with one statement that it repeats.
class Statement {
 public:
  Statement(const std::filesystem::path& path, const char* text) {
    Check(sqlite3_open(path.c_str(), &m_connection) == SQLITE_OK &&
          sqlite3_busy_timeout(m_connection, kMostWait) == SQLITE_OK);
    for (const char* setting : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=OFF"})
      Run(setting);
    Check(sqlite3_prepare_v2(m_connection, text, -1, &m_statement, nullptr) == SQLITE_OK);
  }
  ~Statement() {
    sqlite3_finalize(m_statement);
    sqlite3_close(m_connection);
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void Run(const std::string& text) {
    Check(sqlite3_exec(m_connection, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
  }
  void BindKey(const Tiles& tiles, unsigned int tile) {
    if (!tiles.IsNamed()) {
      sqlite3_bind_int64(m_statement, 1, tile);
      return;
    }
    const std::string& name = tiles.utf8Names[tile];
    sqlite3_bind_text(m_statement, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
  }
  sqlite3_stmt* Get() { return m_statement; }

 private:
  sqlite3* m_connection = nullptr;
  sqlite3_stmt* m_statement = nullptr;
};

class SqliteReader : public Reader {
 public:
  SqliteReader(const std::filesystem::path& path, const Tiles& tiles)
      : m_tiles(tiles),
        m_select(path, "SELECT data FROM tiles WHERE id = ?"),
        m_buffer(tiles.payload.size()) {}

  Bytes Get(unsigned int tile) override {
    m_select.BindKey(m_tiles, tile);
    Check(sqlite3_step(m_select.Get()) == SQLITE_ROW);
    const void* blob = sqlite3_column_blob(m_select.Get(), 0);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(m_select.Get(), 0));
    std::memcpy(m_buffer.data(), blob, size);
    sqlite3_reset(m_select.Get());
    return {m_buffer.data(), size};
  }

 private:
  const Tiles& m_tiles;
  Statement m_select;
  std::vector<unsigned char> m_buffer;
};

class SqliteStore : public Store {
 public:
  SqliteStore(const std::filesystem::path& folder, const Tiles& tiles, Access access)
      : m_tiles(tiles), m_path(folder / "sqlite") {
    const std::string type = tiles.IsNamed() ? "TEXT" : "INTEGER";
    if (access == Access::kMake)
      Statement(m_path, "").Run("CREATE TABLE tiles (id " + type + " PRIMARY KEY, data BLOB)");
  }

  void Put(unsigned int tile, const Zarn::ZrByteArray& data) override { Insert(tile, data); }

  void PutBatch(const Batch& batch) override {
    GetInsert().Run("BEGIN");
    for (unsigned int i = 0; i < batch.data.size(); ++i)
      Insert(batch.TileAt(i), batch.data[i]);
    GetInsert().Run("COMMIT");
  }

  std::unique_ptr<Reader> NewReader() override {
    return std::make_unique<SqliteReader>(m_path, m_tiles);
  }

  bool Walk(const std::function<void(Bytes)>& visit) override {
    std::vector<unsigned char> buffer(m_tiles.payload.size());
    Statement select(m_path, "SELECT data FROM tiles");
    while (sqlite3_step(select.Get()) == SQLITE_ROW) {
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(select.Get(), 0));
      std::memcpy(buffer.data(), sqlite3_column_blob(select.Get(), 0), size);
      visit({buffer.data(), size});
    }
    return true;
  }

 private:
  Statement& GetInsert() {
    if (m_insert == nullptr)
      m_insert = std::make_unique<Statement>(m_path, "INSERT OR REPLACE INTO tiles VALUES (?, ?)");
    return *m_insert;
  }
  void Insert(unsigned int tile, const Zarn::ZrByteArray& data) {
    Statement& insert = GetInsert();
    insert.BindKey(m_tiles, tile);
    sqlite3_bind_blob64(insert.Get(), 2, data.GetData(), data.GetSize(), SQLITE_STATIC);
    Check(sqlite3_step(insert.Get()) == SQLITE_DONE);
    sqlite3_reset(insert.Get());
  }

  const Tiles& m_tiles;
  std::filesystem::path m_path;
  std::unique_ptr<Statement> m_insert;  // made by the first store
};

}  // namespace

std::unique_ptr<Store> OpenSqlite(const std::filesystem::path& folder, const Tiles& tiles,
                                  Access access) {
  return std::make_unique<SqliteStore>(folder, tiles, access);
}

}  // namespace Bench
