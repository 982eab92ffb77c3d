// This program starts itself again for whatever must not find anything that was done before.

#include "Fresh.h"

#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Support.h"
#include "ZrCompactFileReader.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Zarn::ZrCompactFile;

/// The light reader; it stores nothing.
class LightStore : public Store {
 public:
  explicit LightStore(const fs::path& folder)
      : m_path(PelmUnicodeString::FromUtf8((folder / "tiles.cf").string())) {}

  void Put(unsigned int /*tile*/, const Zarn::ZrByteArray& /*data*/) override { Check(false); }
  void PutBatch(const Batch& /*batch*/) override { Check(false); }
  std::unique_ptr<Reader> NewReader() override { return std::make_unique<LightReader>(m_path); }

 private:
  class LightReader : public Reader {
   public:
    explicit LightReader(const PelmUnicodeString& path) {
      Check(m_file.Open(path, u"", ZrCompactFile::kReadOnly) == 0);
    }
    Bytes Get(unsigned int tile) override {
      unsigned long long filled = 0;
      Check(m_file.Lookup(tile / kColumns, tile % kColumns, m_data, filled, 0) == 0);
      return {m_data.GetData(), m_data.GetSize()};
    }

   private:
    Zarn::ZrCompactFileReader m_file;
    Zarn::ZrByteArray m_data;
  };

  const PelmUnicodeString m_path;
};

// In MiB, by the name that the kernel gives it.
double MemoryOf(const std::string& kind) {
  std::ifstream file("/proc/self/smaps_rollup");
  double kilobytes = 0;
  for (std::string line; std::getline(file, line);)
    if (line.rfind(kind, 0) == 0) kilobytes += std::stod(line.substr(line.find(':') + 1));
  return kilobytes / 1024;
}

/// A store of a place, and what is needed to use it.
struct Use {
  Use(std::string ofColumn, Place ofPlace)
      : column(std::move(ofColumn)), place(std::move(ofPlace)), tiles({Place::kTileSize}) {
    if (place.isNamed) tiles.MakeRoomForNames(place.total);
  }

  void Open(Access access = Access::kOpen) {
    store = OpenerOf(column)(place.folder, tiles, access);
    reader = store->NewReader();
  }
  void Get(unsigned int tile) {
    const Bytes bytes = reader->Get(tile);
    Check(bytes.size() == Place::kTileSize && MarkAt(bytes.data()).tile == tile &&
          MarkAt(bytes.data() + bytes.size() - sizeof(Mark)).tile == tile);
  }
  double Put(unsigned int tile) {
    const Zarn::ZrByteArray& data = payload.Next(tile, Place::kTileSize);
    return CpuSeconds([&] { store->Put(tile, data); });
  }
  // A cell behind one that is filled, far from that of the number before.
  unsigned int NewTile(unsigned int number, unsigned int behind) const {
    Check(behind < place.step);
    const std::uint64_t filled = place.total / place.step;
    return place.TileAt(number * std::uint64_t{7919} % filled) + behind;
  }

  std::string column;
  Place place;
  Tiles tiles;
  Payload payload{tiles};
  std::unique_ptr<Store> store;
  std::unique_ptr<Reader> reader;
};

using Numbers = std::vector<double>;

std::vector<double> Fresh(const char* task, const std::string& column, const Place& place,
                          std::initializer_list<unsigned int> arguments) {
  std::ostringstream command;
  command << "'" << fs::read_symlink("/proc/self/exe").string() << "' --fresh " << task << " '"
          << column << "' '" << place.folder.string() << "' " << place.total << ' ' << place.step
          << ' ' << place.isNamed;
  for (const unsigned int argument : arguments)
    command << ' ' << argument;
  std::FILE* const output = ::popen(command.str().c_str(), "re");
  Check(output != nullptr);
  Numbers numbers;
  for (double number = 0; std::fscanf(output, "%lf", &number) == 1;)
    numbers.push_back(number);
  Check(::pclose(output) == 0);
  return numbers;
}

Numbers RunProfile(Use& use, const std::vector<unsigned int>& arguments) {
  const unsigned int gets = arguments.at(0), filled = use.place.total / use.place.step;
  const bool isPutting = arguments.at(1) != 0;
  const unsigned int put = use.place.isNamed ? use.place.total - 1 - arguments.at(2)
                           : isPutting       ? use.NewTile(arguments.at(2), 1)
                                             : 0;
  std::mt19937 random(arguments.at(2));
  std::vector<unsigned int> order(std::max(gets, 1U));
  for (unsigned int& tile : order)
    tile = use.place.TileAt(random() % filled);
  if (use.place.isNamed) {
    for (const unsigned int tile : order)
      use.tiles.MakeName(tile);
    if (isPutting) {
      use.tiles.utf8Names[put] = "new " + std::to_string(put);
      use.tiles.names[put] = PelmUnicodeString::FromUtf8(use.tiles.utf8Names[put]);
    }
  }
  ::malloc_trim(0);
  const double before = MemoryOf("Private_"), ownBefore = MemoryOf("Anonymous");
  Profile profile = {};
  profile.open = CpuSeconds([&] {
    use.Open();
    if (!isPutting) use.Get(order[0]);
  });
  profile.openedMiB = MemoryOf("Private_") - before;
  if (isPutting) {
    profile.put = use.Put(put);
    use.Get(put);
  }
  if (gets != 0) {
    profile.get = CpuSeconds([&] {
      for (const unsigned int tile : order)
        use.Get(tile);
    });
    profile.get /= gets;
  }
  profile.privateMiB = MemoryOf("Private_") - before;
  profile.ownMiB = MemoryOf("Anonymous") - ownBefore;
  return {profile.open,      profile.put,        profile.get,
          profile.openedMiB, profile.privateMiB, profile.ownMiB};
}

Numbers RunPuts(Use& use, const std::vector<unsigned int>& arguments) {
  use.Open();
  for (unsigned int i = 0; i < arguments.at(1); ++i)
    use.Put(use.NewTile(arguments.at(0) + i, 3));
  return {};
}

Numbers RunBeside(Use& use, const std::vector<unsigned int>& arguments) {
  const unsigned int others = arguments.at(0);
  const unsigned int first = std::random_device()() % 1000000;
  Numbers times;
  use.Open();
  use.Put(use.NewTile(first, 2));
  for (unsigned int round = 1; round <= arguments.at(1); ++round) {
    Fresh("puts", use.column, use.place, {first + round * others, others});
    times.push_back(use.Put(use.NewTile(first + round, 2)));
    if (others != 0) use.Get(use.NewTile(first + round * others + others - 1, 3));
    use.Get(use.NewTile(first + round, 2));
  }
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return {*middle};
}

// The engine begins with the room of a file that nobody planned.
Numbers RunGrowth(Use& use, const std::vector<unsigned int>& /*arguments*/) {
  for (unsigned int tile = 0; tile < use.place.total; ++tile)
    use.tiles.MakeName(tile);
  use.Open(use.column == kLmdb ? Access::kMake : Access::kOpen);
  double longest = 0, sum = 0;
  for (unsigned int tile = 0; tile < use.place.total; ++tile) {
    const double time = use.Put(tile);
    longest = std::max(longest, time);
    sum += time;
  }
  for (unsigned int tile = 0; tile < use.place.total; tile += 1000)
    use.Get(tile);
  return {longest, sum / use.place.total};
}

}  // namespace

ZrCompactFile::ZrOpenMode ModeOf(const std::string& column) {
  const bool isLocked = column == kLocked || column == kMappedLocked;
  const bool isMapped = column == kMapped || column == kMappedLocked;
  return ZrCompactFile::kCreateMissing | (isLocked ? ZrCompactFile::kProcessLock : 0U) |
         (isMapped ? ZrCompactFile::kMapped : 0U);
}

Opener OpenerOf(const std::string& column) {
  if (column == kLmdb) return OpenLmdb;
  if (column == kLight)
    return [](const fs::path& folder, const Tiles&, Access) {
      return std::make_unique<LightStore>(folder);
    };
  return EngineOpener(ModeOf(column));
}

Profile ProfileOf(const std::string& column, const Place& place, unsigned int gets, bool isPutting,
                  unsigned int number) {
  const Numbers n = Fresh("profile", column, place, {gets, isPutting ? 1U : 0U, number});
  return {n.at(0), n.at(1), n.at(2), n.at(3), n.at(4), n.at(5)};
}

double PutBesideOther(const std::string& column, const Place& place, unsigned int others,
                      unsigned int rounds) {
  return Fresh("beside", column, place, {others, rounds}).at(0);
}

Growth GrowthOf(const std::string& column, const Place& place) {
  const Numbers n = Fresh("growth", column, place, {});
  return {n.at(0), n.at(1)};
}

bool RunFresh(int argc, char** argv) {
  if (argc < 8 || argv[1] != std::string("--fresh")) return false;
  constexpr std::pair<const char*, Numbers (*)(Use&, const std::vector<unsigned int>&)> kTasks[] = {
      {"profile", RunProfile}, {"puts", RunPuts}, {"beside", RunBeside}, {"growth", RunGrowth}};
  std::vector<unsigned int> numbers;
  for (int i = 5; i < argc; ++i)
    numbers.push_back(static_cast<unsigned int>(std::stoul(argv[i])));
  Use use(argv[3], {argv[4], numbers[0], numbers[1], numbers[2] != 0});
  numbers.erase(numbers.begin(), numbers.begin() + 3);
  for (const auto& [name, run] : kTasks)
    if (name == std::string(argv[2]))
      for (const double number : run(use, numbers))
        std::printf("%.12g\n", number);
  return true;
}

}  // namespace Bench
