#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Rows.h"

namespace Bench {

inline constexpr char kLight[] = "light class";  // the light reader

/// Stores of many cells or names, of which every `step`-th is filled: one of each kind in a folder.
/// All tiles are small and of one size.
struct Place {
  static constexpr std::size_t kTileSize = 200;

  unsigned int TileAt(std::size_t i) const { return static_cast<unsigned int>(i) * step; }

  std::filesystem::path folder;
  unsigned int total, step;  // of cells or names
  bool isNamed;
};

/// How the engine is opened for a column.
Zarn::ZrCompactFile::ZrOpenMode ModeOf(const std::string& column);
/// A column's store.
Opener OpenerOf(const std::string& column);

/// What one process finds that opens a store.
struct Profile {
  double open, put, get;  // seconds of: opening, the first put, a get on average
  double openedMiB;       // private memory that opening takes, with one get
  double privateMiB;      // the same after all gets
  double ownMiB;          // of it, what are no pages of the file
};

/// Each of these runs in a process that has done nothing before, and checks what it does.
///
/// Opens, puts a new tile or gets one (`isPutting`: the former), then gets so many in random order.
/// `number` tells which tile to put.
Profile ProfileOf(const std::string& column, const Place& place, unsigned int gets,
                  bool isPutting = false, unsigned int number = 0);
/// Seconds of a put after another process put so many tiles, the median of several.
double PutBesideOther(const std::string& column, const Place& place, unsigned int others,
                      unsigned int rounds);
/// Puts all names of a place one by one; seconds of the longest put, and of one on average.
struct Growth {
  double longest, mean;
};
Growth GrowthOf(const std::string& column, const Place& place);

/// What such a process does; true if this program was started as one.
bool RunFresh(int argc, char** argv);

}  // namespace Bench
