// Stores and lookups by one process, and by some threads of it.

#include <fcntl.h>
#include <unistd.h>

#include <barrier>
#include <thread>

#include "Rows.h"
#include "Support.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

void OpenAll(std::vector<Contender>& contenders, const Tiles& tiles, Access access) {
  for (Contender& contender : contenders)
    contender.store = contender.opener(contender.folder, tiles, access);
}

void CloseAll(std::vector<Contender>& contenders) {
  for (Contender& contender : contenders)
    contender.store.reset();
}

void KeepShared(std::vector<Contender>& contenders) {
  std::erase_if(contenders, [](const Contender& contender) { return !contender.isShared; });
}

// Each contender makes `count` calls of `put`, numbered from 0 on, a slice at a time.
void MeasurePuts(Row& row, std::vector<Contender>& contenders, unsigned int count,
                 unsigned int slice, const std::function<void(Store&, unsigned int)>& put) {
  InTurns(count / slice, contenders, [&](Contender& contender, unsigned int repetition) {
    const double seconds = CpuSeconds([&] {
      for (unsigned int i = 0; i < slice; ++i)
        put(*contender.store, repetition * slice + i);
    });
    row.Add(contender.column, seconds / slice);
    Settle(contender.folder);
  });
}

void MeasureNewTiles(Report& report, const std::string& what, std::vector<Contender>& contenders,
                     const Tiles& tiles, const Scale& scale) {
  Payload payload(tiles);
  MeasurePuts(report.Speed(what), contenders, scale.stored, scale.slice,
              [&](Store& store, unsigned int i) { store.Put(i, payload.Next(i, tiles.sizes[i])); });
}

// In turns as well: then nobody's pages lie in memory of another kind than the others'.
void Fill(std::vector<Contender>& contenders, const Tiles& tiles, unsigned int count,
          unsigned int slice) {
  Payload payload(tiles);
  InTurns(count / slice, contenders, [&](Contender& contender, unsigned int repetition) {
    for (unsigned int tile = repetition * slice; tile < (repetition + 1) * slice; ++tile)
      contender.store->Put(tile, payload.Next(tile, tiles.sizes[tile]));
  });
  Settle(contenders.front().folder);
}

/// A column, and what reads for it.
struct Looker {
  std::string column;
  std::function<std::unique_ptr<Reader>()> newReader;
};

// Each thread begins elsewhere. Up to two look up all tiles each, more of them as many together as
// two. Seconds per tile, from when the first one begins to when the last one ends.
double MeasureGets(const Looker& looker, const std::vector<unsigned int>& order,
                   unsigned int threads) {
  using Clock = std::chrono::steady_clock;
  const std::size_t count = std::min(order.size(), order.size() * 2 / threads);
  std::vector<Clock::time_point> starts(threads), ends(threads);
  std::barrier together(threads);
  const auto work = [&](unsigned int thread) {
    const std::unique_ptr<Reader> reader = looker.newReader();
    const std::size_t first = thread * order.size() / threads;
    together.arrive_and_wait();
    starts[thread] = Clock::now();
    for (std::size_t i = 0; i < count; ++i)
      reader->Get(order[(first + i) % order.size()]);
    ends[thread] = Clock::now();
  };
  std::vector<std::thread> running;
  for (unsigned int i = 0; i < threads; ++i)
    running.emplace_back(work, i);
  for (std::thread& thread : running)
    thread.join();
  const std::chrono::duration<double> time =
      *std::max_element(ends.begin(), ends.end()) - *std::min_element(starts.begin(), starts.end());
  return time.count() / static_cast<double>(threads * count);
}

void MeasureGets(Report& report, const std::string& what, std::vector<Contender>& contenders,
                 const std::vector<unsigned int>& threadCounts, const Scale& scale) {
  std::vector<Looker> lookers;
  for (Contender& contender : contenders) {
    Store& store = *contender.store;
    lookers.push_back({contender.column, [&] { return store.NewReader(); }});
    if (contender.column == kLimit)
      lookers.push_back({kMemcpy, [&] { return store.NewMappedReader(); }});
  }
  const std::vector<unsigned int> order = Shuffled(scale.tiles);
  const std::string one = what + ", 1 thread";
  InTurns(scale.passes, lookers, [&](const Looker& looker, unsigned int) {
    double alone = 0;
    const double seconds = CpuSeconds([&] { alone = MeasureGets(looker, order, 1); });
    report.Speed(one).Add(looker.column, seconds / scale.tiles);
    for (const unsigned int threads : threadCounts) {
      const std::string many = what + ", " + std::to_string(threads) + " threads";
      const double together = MeasureGets(looker, order, threads);
      report.Speed(many).Add(looker.column, together);
      report.Figure(many + " : 1 thread", "times").Add(looker.column, alone / together);
    }
  });
}

// Every tile once: by a cursor, or one by one as they lie in the file.
void MeasureWalks(Report& report, const std::string& what, std::vector<Contender>& contenders,
                  const Tiles& tiles, const Scale& scale) {
  using Visit = std::function<void(Bytes)>;
  std::vector<std::pair<std::string, std::function<void(const Visit&)>>> walkers;
  const auto readEach = [&](Reader& reader, const Visit& visit) {
    for (unsigned int i = 0; i < scale.tiles; ++i)
      visit(reader.Get(i));
  };
  for (Contender& contender : contenders) {
    Store& store = *contender.store;
    walkers.emplace_back(contender.column, [&store, readEach](const Visit& visit) {
      if (!store.Walk(visit)) readEach(*store.NewReader(), visit);
    });
    if (contender.column == kLimit)
      walkers.emplace_back(kMemcpy, [&store, readEach](const Visit& visit) {
        readEach(*store.NewMappedReader(), visit);
      });
  }
  std::uint64_t expected = 0;
  for (unsigned int i = 0; i < scale.tiles; ++i)
    expected += i + tiles.sizes[i];
  Row& row = report.Speed(what);
  InTurns(scale.passes, walkers, [&](const auto& walker, unsigned int) {
    std::uint64_t seen = 0;
    const double seconds = CpuSeconds([&] {
      walker.second([&](Bytes bytes) { seen += MarkAt(bytes.data()).tile + bytes.size(); });
    });
    Check(seen == expected);
    row.Add(walker.first, seconds / scale.tiles);
  });
}

// Replaces tiles in an order of chance: first by others as large, then by larger ones.
void MeasureRewrites(Report& report, std::vector<Contender>& contenders, const Tiles& tiles,
                     const Scale& scale) {
  const std::vector<unsigned int> order = Shuffled(scale.stored);
  Payload payload(tiles);
  const auto measure = [&](const char* what, unsigned int halves) {
    MeasurePuts(report.Speed(what), contenders, scale.rewritten, scale.slice,
                [&](Store& store, unsigned int i) {
                  store.Put(order[i], payload.Next(order[i], tiles.sizes[order[i]] * halves / 2));
                });
  };
  measure("rewrite, same size", 2);
  measure("rewrite, 1.5 times larger", 3);
}

void MeasureBatches(Report& report, const std::string& what, const fs::path& folder,
                    const Tiles& tiles, const Scale& scale) {
  std::vector<Contender> contenders = MakeContenders(folder);
  std::erase_if(contenders, [](const Contender& contender) {
    const std::string& column = contender.column;
    return column == kLocked || column == kMapped || column == kMappedLocked;
  });
  OpenAll(contenders, tiles, Access::kMake);
  Row& row = report.Speed(what);
  InTurns(scale.stored / scale.slice, contenders, [&](Contender& contender, unsigned int slice) {
    const Batch batch(tiles, slice * scale.slice, scale.slice);
    const double seconds = CpuSeconds([&] { contender.store->PutBatch(batch); });
    row.Add(contender.column, seconds / scale.slice);
    Settle(contender.folder);
  });
}

}  // namespace

std::vector<Contender> MakeContenders(const fs::path& folder) {
  constexpr auto kPlain = ZrCompactFile::kCreateMissing;
  constexpr auto kShared = kPlain | ZrCompactFile::kProcessLock;
  fs::remove_all(folder);
  std::vector<Contender> contenders;
  const auto add = [&](const char* column, const Opener& opener, bool isShared) {
    fs::create_directories(folder / column);
    contenders.push_back({column, folder / column, opener, isShared, nullptr});
  };
  add(kLimit, OpenLimit, true);
  add(kEngine, EngineOpener(kPlain), false);
  add(kLocked, EngineOpener(kShared), true);
  add(kMapped, EngineOpener(kPlain | ZrCompactFile::kMapped), false);
  add(kMappedLocked, EngineOpener(kShared | ZrCompactFile::kMapped), true);
  add(kLmdb, OpenLmdb, true);
  add(kSqlite, OpenSqlite, true);
  return contenders;
}

void MeasureStores(Report& report, const Scale& scale, const fs::path& folder) {
  const Tiles tiles = MapTiles(scale.stored);
  for (unsigned int i = 0; i < scale.rounds; ++i) {
    std::vector<Contender> contenders = MakeContenders(folder);
    OpenAll(contenders, tiles, Access::kMake);
    MeasureNewTiles(report, "put each", contenders, tiles, scale);
    CloseAll(contenders);
    OpenAll(contenders, tiles, Access::kOpen);
    MeasureRewrites(report, contenders, tiles, scale);
    CloseAll(contenders);
    MeasureBatches(report, "batch put", folder, tiles, scale);
  }
}

void MeasureProcesses(Report& report, const Scale& scale, const fs::path& folder) {
  const Tiles tiles = MapTiles(scale.stored + scale.turns * scale.slice);
  std::vector<Contender> contenders = MakeContenders(folder);
  KeepShared(contenders);
  OpenAll(contenders, tiles, Access::kMake);
  Fill(contenders, tiles, scale.stored, scale.slice);
  CloseAll(contenders);
  MeasureWriters(report, contenders, tiles, scale);
}

void MeasureNamedStores(Report& report, const Scale& scale, const fs::path& folder) {
  Tiles tiles = MapTiles(scale.stored);
  tiles.MakeNames();
  for (unsigned int i = 0; i < scale.rounds; ++i) {
    std::vector<Contender> contenders = MakeContenders(folder);
    OpenAll(contenders, tiles, Access::kMake);
    MeasureNewTiles(report, "named put", contenders, tiles, scale);
    CloseAll(contenders);
    MeasureBatches(report, "named batch put", folder, tiles, scale);
  }
}

void MeasureLookups(Report& report, const Scale& scale, const fs::path& folder) {
  Tiles tiles = MapTiles(scale.tiles);
  for (const char* what : {"random get", "named get"}) {
    std::vector<Contender> contenders = MakeContenders(folder);
    OpenAll(contenders, tiles, Access::kMake);
    Fill(contenders, tiles, scale.tiles, scale.slice);
    MeasureGets(report, what, contenders, tiles.IsNamed() ? std::vector{2U} : std::vector{2U, 8U},
                scale);
    CloseAll(contenders);
    if (tiles.IsNamed()) break;
    MeasureSpace(report, contenders, tiles);
    KeepShared(contenders);
    MeasureManyProcesses(report, contenders, tiles, scale);
    tiles.MakeNames();
  }
}

// Beside the engine itself: what the face costs.
void MeasureFace(Report& report, const Scale& scale, const fs::path& folder) {
  Tiles tiles = MapTiles(scale.stored);
  for (const std::string what : {"", "named "}) {
    std::vector<Contender> contenders = MakeContenders(folder);
    std::erase_if(contenders, [](const Contender& contender) {
      return contender.column != kLimit && contender.column != kEngine;
    });
    fs::create_directories(folder / kFace);
    contenders.push_back({kFace, folder / kFace, OpenFace, false, nullptr});
    OpenAll(contenders, tiles, Access::kMake);
    MeasureNewTiles(report, what + "put through the face", contenders, tiles, scale);
    std::vector<Looker> lookers;
    for (Contender& contender : contenders)
      lookers.push_back({contender.column, [&] { return contender.store->NewReader(); }});
    const std::vector<unsigned int> order = Shuffled(scale.stored);
    InTurns(scale.passes, lookers, [&](const Looker& looker, unsigned int) {
      const double seconds = CpuSeconds([&] { MeasureGets(looker, order, 1); });
      report.Speed(what + "get through the face").Add(looker.column, seconds / scale.stored);
    });
    CloseAll(contenders);
    tiles.MakeNames();
  }
}

void MeasureWalks(Report& report, const Scale& scale, const fs::path& folder) {
  Tiles tiles = MapTiles(scale.tiles);
  for (const char* what : {"walk", "named walk"}) {
    std::vector<Contender> contenders = MakeContenders(folder);
    OpenAll(contenders, tiles, Access::kMake);
    Fill(contenders, tiles, scale.tiles, scale.slice);
    MeasureWalks(report, what, contenders, tiles, scale);
    CloseAll(contenders);
    if (!tiles.IsNamed()) tiles.MakeNames();
  }
}

// The first of two versions, beside one read of as many bytes.
void MeasureVersions(Report& report, const Scale& scale, const fs::path& folder) {
  const Tiles tiles = MapTiles(scale.slice);
  const std::unique_ptr<Store> limit = OpenLimit(folder, tiles, Access::kMake);
  ZrCompactFile file;
  Check(file.Create(PelmUnicodeString::FromUtf8((folder / "tiles.cf").string()), tiles.Rows(),
                    kColumns, u"", 0) == 0);
  Payload payload(tiles);
  for (const unsigned long long stamp : {5ULL, 9ULL})
    for (unsigned int i = 0; i < tiles.Count(); ++i) {
      const ZrByteArray& data = payload.Next(i, tiles.sizes[i]);
      Check(file.SetAt(i / kColumns, i % kColumns, data, 0, 0, stamp) == 0);
      if (stamp == 5) limit->Put(i, data);
    }
  const std::unique_ptr<Reader> reader = limit->NewReader();
  ZrByteArray data;
  struct Looker {
    const char* column;
    std::function<void(unsigned int)> get;
  };
  std::vector<Looker> lookers = {
      {kLimit, [&](unsigned int tile) { reader->Get(tile); }},
      {kEngine, [&](unsigned int tile) {
         unsigned long long filled = 0;
         Check(file.Lookup(tile / kColumns, tile % kColumns, data, filled, 5) == 0 &&
               filled == tiles.sizes[tile]);
       }}};
  // That the newest record must be read first, for it has the table of versions.
  Row& both = report.Speed("get of an older version: two reads");
  const int heads = ::open((folder / "tiles.cf").c_str(), O_RDONLY | O_CLOEXEC);
  const std::size_t newest = fs::file_size(folder / "tiles.cf") / 2;
  const auto readBoth = [&](unsigned int tile) {
    char head[256];
    const auto place = static_cast<off_t>(newest + newest / tiles.Count() * tile);
    Check(::pread(heads, head, sizeof head, place) == sizeof head);
    reader->Get(tile);
  };
  Row& row = report.Speed("get of an older version");
  const std::vector<unsigned int> order = Shuffled(tiles.Count());
  InTurns(scale.passes, lookers, [&](const Looker& looker, unsigned int) {
    const double seconds =
        CpuSeconds([&] { std::for_each(order.begin(), order.end(), looker.get); });
    row.Add(looker.column, seconds / tiles.Count());
    const bool isLimit = looker.column == kLimit;
    both.Add(looker.column, isLimit ? CpuSeconds([&] {
                                        std::for_each(order.begin(), order.end(), readBoth);
                                      }) / tiles.Count()
                                    : seconds / tiles.Count());
  });
  Check(::close(heads) == 0);
}

}  // namespace Bench
