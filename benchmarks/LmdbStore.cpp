#include <lmdb.h>

#include <cstring>

#include "Stores.h"
#include "Support.h"

namespace Bench {
namespace {

class LmdbStore : public Store {
 public:
  LmdbStore(const std::filesystem::path& folder, const Tiles& tiles, Access access)
      : m_tiles(tiles) {
    Check(mdb_env_create(&m_environment) == 0 &&
          mdb_env_set_mapsize(m_environment, std::size_t{8} << 30) == 0 &&
          mdb_env_open(m_environment, (folder / "lmdb").c_str(), MDB_NOSYNC | MDB_NOSUBDIR, 0600) ==
              0);
    MDB_txn* transaction = Begin(access == Access::kMake ? 0 : MDB_RDONLY);
    Check(mdb_dbi_open(transaction, nullptr, tiles.IsNamed() ? 0 : MDB_INTEGERKEY, &m_database) ==
              0 &&
          mdb_txn_commit(transaction) == 0);
  }
  ~LmdbStore() override { mdb_env_close(m_environment); }
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  void Put(unsigned int tile, const Zarn::ZrByteArray& data) override {
    MDB_txn* transaction = Begin(0);
    Put(transaction, tile, data, 0);
    Check(mdb_txn_commit(transaction) == 0);
  }

  // The numbers of cells come in their order, of which LMDB makes use; names do not.
  void PutBatch(const Batch& batch) override {
    const unsigned int flags = m_tiles.IsNamed() ? 0 : MDB_APPEND;
    MDB_txn* transaction = Begin(0);
    for (unsigned int i = 0; i < batch.data.size(); ++i)
      Put(transaction, batch.TileAt(i), batch.data[i], flags);
    Check(mdb_txn_commit(transaction) == 0);
  }

  std::unique_ptr<Reader> NewReader() override { return std::make_unique<TileReader>(*this); }

  bool Walk(const std::function<void(Bytes)>& visit) override {
    std::vector<unsigned char> buffer(m_tiles.payload.size());
    MDB_txn* const transaction = Begin(MDB_RDONLY);
    MDB_cursor* cursor = nullptr;
    Check(mdb_cursor_open(transaction, m_database, &cursor) == 0);
    MDB_val key, value;
    while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
      std::memcpy(buffer.data(), value.mv_data, value.mv_size);
      visit({buffer.data(), value.mv_size});
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(transaction);
    return true;
  }

 private:
  class TileReader : public Reader {
   public:
    explicit TileReader(LmdbStore& store)
        : m_store(store),
          m_transaction(store.Begin(MDB_RDONLY)),
          m_buffer(store.m_tiles.payload.size()) {
      mdb_txn_reset(m_transaction);
    }
    ~TileReader() override { mdb_txn_abort(m_transaction); }
    TileReader(const TileReader&) = delete;
    TileReader& operator=(const TileReader&) = delete;

    Bytes Get(unsigned int tile) override {
      MDB_val key = m_store.KeyOf(tile);
      MDB_val value;
      Check(mdb_txn_renew(m_transaction) == 0 &&
            mdb_get(m_transaction, m_store.m_database, &key, &value) == 0);
      std::memcpy(m_buffer.data(), value.mv_data, value.mv_size);
      mdb_txn_reset(m_transaction);
      return {m_buffer.data(), value.mv_size};
    }

   private:
    LmdbStore& m_store;
    MDB_txn* m_transaction;
    std::vector<unsigned char> m_buffer;
  };

  MDB_txn* Begin(unsigned int flags) {
    MDB_txn* transaction = nullptr;
    Check(mdb_txn_begin(m_environment, nullptr, flags, &transaction) == 0);
    return transaction;
  }
  void Put(MDB_txn* transaction, unsigned int tile, const Zarn::ZrByteArray& data,
           unsigned int flags) {
    MDB_val key = KeyOf(tile);
    MDB_val value = {data.GetSize(), const_cast<unsigned char*>(data.GetData())};
    Check(mdb_put(transaction, m_database, &key, &value, flags) == 0);
  }
  MDB_val KeyOf(unsigned int& tile) const {
    if (!m_tiles.IsNamed()) return {sizeof tile, &tile};
    const std::string& name = m_tiles.utf8Names[tile];
    return {name.size(), const_cast<char*>(name.data())};
  }

  const Tiles& m_tiles;
  MDB_env* m_environment = nullptr;
  MDB_dbi m_database = 0;
};

}  // namespace

std::unique_ptr<Store> OpenLmdb(const std::filesystem::path& folder, const Tiles& tiles,
                                Access access) {
  return std::make_unique<LmdbStore>(folder, tiles, access);
}

}  // namespace Bench
