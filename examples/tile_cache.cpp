// A tile cache: four threads download, four serve, and a second process serves as well. Versions
// are times; a download that was cut short goes on where it was; what is too old goes.
//   tile_cache [FOLDER]

#include <hx/tiles.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::uint32_t kZoom = 5;
constexpr std::uint32_t kSide = 16;
constexpr std::size_t kPiece = 4096;  // what comes from the server at once

hx::Tile TileOf(std::uint32_t number) { return {kZoom, number % kSide, number / kSide}; }

// Stands for a server: the tile as it was at a time, from this byte on, and no more than a piece.
std::string Download(const hx::Tile& tile, hx::Stamp time, std::size_t from) {
  const std::string text = tile.name() + " at " + std::to_string(time) + ". ";
  std::string whole;
  while (whole.size() < 10000 + 40 * tile.x)
    whole += text;
  return whole.substr(std::min(from, whole.size()), kPiece);
}

std::size_t SizeAtServer(const hx::Tile& tile, hx::Stamp time) {
  std::size_t size = 0;
  for (std::string piece; !(piece = Download(tile, time, size)).empty();)
    size += piece.size();
  return size;
}

// Fetches what is missing of a version, piece by piece. `pieces`: after so many the line is cut.
void Fetch(hx::Tileset& cache, const hx::Tile& tile, hx::Stamp time, int pieces) {
  std::size_t done = 0;
  for (const hx::Version& version : cache.versions(tile))
    if (version.stamp == time) done = version.filledLength;
  const std::size_t size = SizeAtServer(tile, time);
  for (; done < size && pieces > 0; --pieces) {
    const std::string piece = Download(tile, time, done);
    cache.put(tile, piece, {time, size, done});
    done += piece.size();
  }
}

void FetchAll(hx::Tileset& cache, hx::Stamp time, int pieces) {
  std::atomic<std::uint32_t> next{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (std::uint32_t number; (number = next++) < kSide * kSide;)
        Fetch(cache, TileOf(number), time, pieces);
    });
  for (std::thread& thread : threads)
    thread.join();
}

// What a request would be answered: the newest version, or the one before while that is coming in.
bool Serve(const hx::Tileset& cache, const hx::Tile& tile) {
  auto found = cache.find(tile);
  if (found && !found->complete()) {
    const auto versions = cache.versions(tile);
    if (versions.size() > 1) found = cache.find(tile, versions[1].stamp);
  }
  if (!found || !found->complete()) return true;  // not yet
  const std::string expected = Download(tile, found->stamp(), 0);
  return found->text().substr(0, expected.size()) == expected;
}

bool ServeAWhile(const hx::Tileset& cache, const std::atomic<bool>& isOver) {
  bool isRight = true;
  for (std::uint32_t number = 0; !isOver || number < kSide * kSide; ++number)
    isRight = Serve(cache, TileOf(number % (kSide * kSide))) && isRight;
  return isRight;
}

bool Run(const std::filesystem::path& path) {
  hx::Tileset cache = hx::Tileset::open_or_create(path);
  hx::Metadata metadata;
  metadata.set("name", "A cache");
  metadata.set_zooms(kZoom, kZoom);
  cache.set_metadata(metadata);
  FetchAll(cache, 1000, 99);

  const pid_t other = ::fork();
  if (other == 0) {
    const hx::Tileset own = hx::Tileset::open(path, {true});  // for reading
    ::_exit(ServeAWhile(own, true) ? 0 : 1);
  }
  std::atomic<bool> isOver{false}, isRight{true};
  std::vector<std::thread> servers;
  for (int i = 0; i < 4; ++i)
    servers.emplace_back([&] {
      if (!ServeAWhile(cache, isOver)) isRight = false;
    });
  FetchAll(cache, 2000, 1);  // the line is cut
  FetchAll(cache, 2000, 99);
  isOver = true;
  for (std::thread& server : servers)
    server.join();
  int status = 1;
  if (::waitpid(other, &status, 0) != other || status != 0 || !isRight) return false;

  const std::uint64_t expired = cache.erase_older_than(1500);
  const hx::Statistics before = cache.statistics();
  cache.compact([](std::uint64_t done, std::uint64_t total) {
    std::printf("\rcompacted %3.0f %%",
                100.0 * static_cast<double>(done) / static_cast<double>(total));
    return true;
  });
  const hx::Statistics after = cache.statistics();
  std::printf("\n%llu tiles; %llu versions expired; %llu bytes dead before, %llu after\n",
              after.tiles - 1, static_cast<unsigned long long>(expired), before.deadBytes,
              after.deadBytes);
  return expired == kSide * kSide && cache.size() == kSide * kSide &&
         after.deadBytes < before.deadBytes && cache.verify();
}

}  // namespace

int main(int argc, char** argv) try {
  const auto path = std::filesystem::path(argc > 1 ? argv[1] : ".") / "tile_cache.cf";
  std::filesystem::remove(path);
  const bool isGood = Run(path);
  std::filesystem::remove(path);
  return isGood ? 0 : 1;
} catch (const hx::Error& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
