#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Report.h"
#include "Stores.h"

namespace Bench {

inline constexpr char kEngine[] = "engine";
inline constexpr char kLocked[] = "process lock";  // the engine with the lock between processes
inline constexpr char kMapped[] = "mapped";        // the engine, reading through a mapping
inline constexpr char kMappedLocked[] = "mapped + lock";  // both
inline constexpr char kMemcpy[] = "memcpy";  // the limit of that: a mapping and nothing else
inline constexpr char kFace[] = "hx";        // the engine through its face for C++17
inline constexpr char kLmdb[] = "LMDB";
inline constexpr char kSqlite[] = "SQLite";

/// How much is measured. Stores are made again for each round, and stay small: the more memory a
/// machine has to find for its page cache, the more of a store's time is nobody's but the kernel's.
struct Scale {
  unsigned int tiles = 65536;     // there for lookups
  unsigned int passes = 11;       // over them, and openings
  unsigned int rounds = 3;        // of stores
  unsigned int stored = 16384;    // tiles in a round
  unsigned int rewritten = 8192;  // of them, once by others as large and once by larger ones
  unsigned int turns = 7;         // of two processes
  unsigned int longTurns = 5;     // of many processes, and of those that store at a given pace
  unsigned int paced = 500;       // stores of one of these
  unsigned int slice = 2048;      // what is timed at once
  unsigned int names = 1000000;   // in a file to be opened
};

/// A column of the report, and the store behind it.
struct Contender {
  std::string column;
  std::filesystem::path folder;
  Opener opener;
  bool isShared;  // several processes may use it at the same time
  std::unique_ptr<Store> store;
};

/// All that there are, each with an empty folder below this one, which is emptied.
std::vector<Contender> MakeContenders(const std::filesystem::path& folder);

/// All of them take their turn in each repetition, and each repetition begins with another one:
/// what disturbs this machine for a while disturbs all of them.
template <typename Item, typename Action>
void InTurns(unsigned int repetitions, std::vector<Item>& items, Action action) {
  for (unsigned int repetition = 0; repetition < repetitions; ++repetition)
    for (std::size_t i = 0; i < items.size(); ++i)
      action(items[(repetition + i) % items.size()], repetition);
}

// Each adds its rows to the report, and works in a folder of its own.
void MeasureLookups(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureWalks(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureStores(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureProcesses(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureNamedStores(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureFace(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureVersions(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureOpening(Report& report, const Scale& scale, const std::filesystem::path& folder);
void MeasureCalls(Report& report, const Scale& scale, const std::filesystem::path& folder);

/// The length of the files of closed stores, and the memory that a process needs which reads all
/// tiles of one.
void MeasureSpace(Report& report, std::vector<Contender>& closed, const Tiles& tiles);
/// Processes that look up all tiles, alone and many together.
void MeasureManyProcesses(Report& report, std::vector<Contender>& closed, const Tiles& tiles,
                          const Scale& scale);
/// A process that stores, beside others that look up the first `scale.stored` tiles, which are
/// there.
void MeasureWriters(Report& report, std::vector<Contender>& closed, const Tiles& tiles,
                    const Scale& scale);

}  // namespace Bench
