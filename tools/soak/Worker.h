#pragma once

#include <cstdint>
#include <filesystem>

namespace Soak {

/// Where the processes find the files.
struct Places {
  std::filesystem::path folder;
  std::filesystem::path view;         // the same folder, for half of the processes; or empty
  std::filesystem::path readersView;  // the same folder, for those that only read; or empty
  int mounts = -1;                    // the mount namespace that has these two; or none
};

/// Works on the files until the process is killed; returns only if it cannot open them. No other
/// worker has the number; another one has the slot as soon as this one is dead.
int Work(std::uint32_t number, std::uint32_t slot, std::uint64_t seed, const Places& places);

}  // namespace Soak
