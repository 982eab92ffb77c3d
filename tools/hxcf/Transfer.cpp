// Many tiles: import, export, copy.

#include <algorithm>
#include <map>

#include "Commands.h"
#include "NamedFiles.h"
#include "TileSink.h"
#include "TileSource.h"

namespace Hxcf {
namespace {

namespace fs = std::filesystem;

/// What a transfer has done, for its end.
struct Tally {
  std::uint64_t done = 0, skipped = 0, ignored = 0, bytes = 0;

  void Print(const Console& console, const char* what) const {
    if (console.isJson)
      return console.PrintJson(
          {{what, done}, {"bytes", bytes}, {"skipped", skipped}, {"ignored", ignored}});
    std::string text = std::string(what) + " " + std::to_string(done) + " tiles, " + Bytes(bytes);
    if (skipped != 0) text += "; " + std::to_string(skipped) + " were there";
    if (ignored != 0) text += "; " + std::to_string(ignored) + " could not be used";
    console.Note(text);
  }
};

/// Tells what could not be used, but not of thousands.
class Complaints {
 public:
  Complaints(const Console& console, Tally& tally) : m_console(console), m_tally(tally) {}

  void Tell(const std::string& text) {
    constexpr std::uint64_t kMost = 20;
    if (++m_tally.ignored <= kMost) m_console.Note("ignored: " + text);
  }

 private:
  const Console& m_console;
  Tally& m_tally;
};

struct ImportOptions {
  std::string source;
  FileOptions file;
  FilterOptions filter;
  std::string scheme = "xyz", layout = "names";
  hx::Stamp stamp = 0;
  bool isByName = false, replaces = false, skips = false;

  Formats::Rows GetRows() const {
    return scheme == "tms" ? Formats::Rows::kUp : Formats::Rows::kDown;
  }
};

/// Stores tiles, many at once, and leaves out those that are there.
class Importer {
 public:
  Importer(Archive& archive, const ImportOptions& options, const Console& console, Tally& tally)
      : m_archive(archive), m_options(options), m_tally(tally), m_progress(console, "imported") {
    m_bytes.reserve(kMostBytes);
  }

  void Add(Archive::Address address, hx::Bytes bytes, std::uint64_t total) {
    m_progress.Show(m_tally.done + m_tally.skipped + m_waiting.size(), total);
    if (!m_options.replaces && IsThere(address)) {
      ++m_tally.skipped;
      return;
    }
    if (m_bytes.size() + bytes.size() > m_bytes.capacity() || m_waiting.size() == kMostTiles)
      Flush();
    if (bytes.size() > m_bytes.capacity()) {
      m_archive.Put(address, bytes, {m_options.stamp});
      ++m_tally.done;
    } else {
      m_waiting.push_back({std::move(address), m_bytes.size(), bytes.size()});
      m_bytes.append(bytes.text());
    }
    m_tally.bytes += bytes.size();
  }

  void Flush() {
    if (hx::Container* const file = m_archive.GetFile())
      file->put_all(MakePuts<hx::Put>([](const auto& address) { return hx::Key(address.text); }));
    else
      m_archive.GetSet()->put_all(
          MakePuts<hx::Tileset::TilePut>([](const auto& address) { return *address.tile; }));
    m_tally.done += m_waiting.size();
    m_waiting.clear();
    m_bytes.clear();
  }

 private:
  static constexpr std::size_t kMostBytes = 4 << 20;
  static constexpr std::size_t kMostTiles = 4096;

  struct Waiting {
    Archive::Address address;
    std::size_t begin, size;
  };

  template <typename Put, typename KeyOf>
  std::vector<Put> MakePuts(KeyOf keyOf) const {
    std::vector<Put> puts;
    puts.reserve(m_waiting.size());
    for (const Waiting& tile : m_waiting)
      puts.push_back(
          {keyOf(tile.address), {m_bytes.data() + tile.begin, tile.size}, {m_options.stamp}});
    return puts;
  }
  bool IsThere(const Archive::Address& address) {
    if (m_options.stamp == 0) return m_archive.Contains(address);
    const auto versions = m_archive.Versions(address);
    return std::any_of(versions.begin(), versions.end(),
                       [&](const auto& version) { return version.stamp == m_options.stamp; });
  }

  Archive& m_archive;
  const ImportOptions& m_options;
  Tally& m_tally;
  Progress m_progress;
  std::string m_bytes;
  std::vector<Waiting> m_waiting;
};

// Some sources walk over their tiles to count them, so it is only done once, and for who sees it.
std::uint64_t TotalOf(Formats::TileSource& source, const Console& console) {
  return console.ShowsProgress() ? source.Count().value_or(0) : 0;
}

// One more look at all tiles, for grids must know how large they are.
std::vector<hx::ZoomRange> FindRanges(Formats::TileSource& source,
                                      const Formats::TileFilter& filter, const Console& console) {
  struct Corners {
    std::uint32_t left = UINT32_MAX, top = UINT32_MAX, right = 0, bottom = 0;
  };
  std::map<std::uint32_t, Corners> zooms;
  Progress progress(console, "measured");
  const std::uint64_t total = TotalOf(source, console);
  std::uint64_t done = 0;
  source.Visit(filter, [&](const hx::Tile& tile, hx::Bytes) {
    Corners& corners = zooms[tile.z];
    corners.left = std::min(corners.left, tile.x);
    corners.right = std::max(corners.right, tile.x);
    corners.top = std::min(corners.top, tile.y);
    corners.bottom = std::max(corners.bottom, tile.y);
    progress.Show(++done, total);
    return true;
  });
  std::vector<hx::ZoomRange> ranges;
  for (const auto& [zoom, corners] : zooms)
    ranges.push_back({zoom, corners.left, corners.top, corners.right - corners.left + 1,
                      corners.bottom - corners.top + 1});
  return ranges;
}

Archive OpenForImport(const ImportOptions& options, Formats::TileSource* source,
                      const Console& console) {
  const hx::Options how = options.file.GetOptions(false);
  const fs::path path = options.file.path;
  if (options.layout == "names" || source == nullptr || fs::exists(path / "tileset.json"))
    return Archive(hx::Tileset::open_or_create(path, how));
  return Archive(hx::Tileset::create_grids(
      path, FindRanges(*source, options.filter.Get().tiles, console), {}, how));
}

// What is there stays, but for --replace.
void ImportMetadata(hx::Tileset& set, const hx::Metadata& from, bool replaces) {
  if (from.empty()) return;
  hx::Metadata metadata = set.metadata();
  const std::size_t before = metadata.values().size();
  for (const auto& [key, value] : from.values())
    if (replaces || metadata.values().count(key) == 0) metadata.set(key, value);
  if (replaces || metadata.values().size() != before) set.set_metadata(metadata);
}

int ImportNames(const ImportOptions& options, const Console& console) {
  if (!fs::is_directory(options.source)) throw WrongCall(options.source + " is no folder");
  if (!options.filter.Get().isForAll || options.layout != "names")
    throw WrongCall("what is imported --by-name has no zooms");
  Archive archive = OpenForImport(options, nullptr, console);
  if (!archive.IsNames()) throw WrongCall(options.file.path + " holds no names");
  Tally tally;
  Complaints complaints(console, tally);
  {
    Importer importer(archive, options, console, tally);
    Formats::VisitNamedFiles(
        options.source,
        [&](std::string_view name, hx::Bytes bytes) {
          importer.Add({std::string(name), {}, {}}, bytes, 0);
          return true;
        },
        [&](const std::string& text) { complaints.Tell(text); });
    importer.Flush();
  }
  tally.Print(console, "imported");
  return kDone;
}

int Import(const ImportOptions& options, const Console& console) {
  if (options.isByName) return ImportNames(options, console);
  const auto source = Formats::OpenSource(options.source, {options.GetRows()});
  const Archive::Filter filter = options.filter.Get();
  Archive archive = OpenForImport(options, source.get(), console);
  const std::uint64_t total = TotalOf(*source, console);
  Tally tally;
  Complaints complaints(console, tally);
  {
    Importer importer(archive, options, console, tally);
    source->Visit(
        filter.tiles,
        [&](const hx::Tile& tile, hx::Bytes bytes) {
          importer.Add({tile.name(), {}, tile}, bytes, total);
          return true;
        },
        [&](const std::string& text) { complaints.Tell(text); });
    importer.Flush();
  }
  ImportMetadata(*archive.GetSet(), source->GetMetadata(), options.replaces);
  tally.Print(console, "imported");
  return kDone;
}

struct ExportOptions {
  FileOptions file;
  std::string target;
  FilterOptions filter;
  std::string scheme = "xyz";
  bool isByName = false, replaces = false;
};

// Only whole tiles leave.
template <typename Put>
void ExportTiles(Archive& archive, const Archive::Filter& filter, const Console& console,
                 Tally& tally, Put put) {
  Complaints complaints(console, tally);
  Progress progress(console, "exported");
  const std::uint64_t total = filter.isForAll && console.ShowsProgress() ? archive.Count() : 0;
  archive.ForEach(filter, true, [&](const Archive::Address& address, const hx::Entry& entry) {
    progress.Show(tally.done, total);
    if (entry.filled() != entry.size()) {
      complaints.Tell(address.text + " is not complete");
    } else if (put(address, entry.payload())) {
      ++tally.done;
      tally.bytes += entry.size();
    }
    return true;
  });
}

int Export(const ExportOptions& options, const Console& console) {
  Archive archive = options.file.Open(true);
  const Archive::Filter filter = options.filter.Get();
  Tally tally;
  if (options.isByName) {
    Formats::NamedFilesSink sink(options.target);
    ExportTiles(archive, filter, console, tally, [&](const auto& address, hx::Bytes bytes) {
      sink.Write(address.text, bytes);
      return true;
    });
    sink.Publish();
  } else {
    if (archive.IsGrid()) throw WrongCall("a grid has no zooms; it can be exported --by-name");
    const auto rows = options.scheme == "tms" ? Formats::Rows::kUp : Formats::Rows::kDown;
    const auto sink = Formats::CreateSink(options.target, {options.replaces, rows});
    sink->SetMetadata(archive.GetSet()->metadata());
    ExportTiles(archive, filter, console, tally, [&](const auto& address, hx::Bytes bytes) {
      if (address.tile) sink->Put(*address.tile, bytes);
      return address.tile.has_value();
    });
    sink->Finish();
  }
  tally.Print(console, "exported");
  return kDone;
}

struct CopyOptions {
  FileOptions file;
  std::string target, targetPassword;
  FilterOptions filter;
  bool withVersions = false;
};

// Of the same kind as the source.
Archive OpenForCopy(Archive& source, const CopyOptions& options) {
  hx::Options how;
  how.password = options.targetPassword;
  if (source.IsGrid())
    return Archive(hx::Container::open_or_create(options.target, source.GetFile()->layout(), how));
  if (source.IsNames() || fs::exists(fs::path(options.target) / "tileset.json"))
    return Archive(hx::Tileset::open_or_create(options.target, how));
  return Archive(hx::Tileset::create_grids(options.target, source.GetSet()->ranges(), {}, how));
}

int Copy(const CopyOptions& options, const Console& console) {
  Archive source = options.file.Open(true);
  const Archive::Filter filter = options.filter.Get();
  Archive target = OpenForCopy(source, options);
  Tally tally;
  {
    Progress progress(console, "copied");
    source.ForEach(filter, false, [&](const Archive::Address& address, const hx::Entry& entry) {
      auto stamps = entry.stamps();
      if (!options.withVersions) stamps.resize(1);
      // In the order in which they were made, each goes to the end.
      for (auto stamp = stamps.rbegin(); stamp != stamps.rend(); ++stamp) {
        const auto payload = source.Find(address, *stamp);
        if (!payload || payload->stamp() != *stamp) continue;  // it has gone meanwhile
        target.Put(target.Parse(address.text), {payload->data(), payload->filled()},
                   {*stamp, payload->size()});
        tally.bytes += payload->size();
      }
      progress.Show(++tally.done, 0);
      return true;
    });
  }
  if (hx::Tileset* const set = target.GetSet())
    ImportMetadata(*set, source.GetSet()->metadata(), false);
  tally.Print(console, "copied");
  return kDone;
}

void AddScheme(CLI::App* command, std::string& scheme) {
  command
      ->add_option("--scheme", scheme,
                   "How a folder counts rows: xyz from the north, tms from the south")
      ->check(CLI::IsMember({"xyz", "tms"}));
}

}  // namespace

void AddTransferCommands(Program& program) {
  const Console& console = program.console;
  {
    auto options = std::make_shared<ImportOptions>();
    CLI::App* const command = program.Add(
        "import",
        "Stores the tiles of an MBTiles or PMTiles file, or of a folder; run again, goes on",
        [=, &console] { return Import(*options, console); });
    command->add_option("SOURCE", options->source, "The MBTiles or PMTiles file, or the folder")
        ->required();
    options->file.AddTo(command, "The compact file, which is made if it is missing");
    options->filter.AddTo(command, false);
    AddScheme(command, options->scheme);
    command
        ->add_option("--layout", options->layout,
                     "names: one file; grid: a folder with a grid for each zoom")
        ->check(CLI::IsMember({"names", "grid"}));
    command->add_option("--stamp", options->stamp, "The stamp of the versions");
    command->add_flag("--by-name", options->isByName,
                      "Any folder of files, each by its path in it");
    auto* const replaces =
        command->add_flag("--replace", options->replaces, "Store also what is there already");
    command->add_flag("--skip", options->skips, "Leave it as it is, which is the default")
        ->excludes(replaces);
  }
  {
    auto options = std::make_shared<ExportOptions>();
    CLI::App* const command =
        program.Add("export", "Writes the tiles as an MBTiles or PMTiles file, or as a folder",
                    [=, &console] { return Export(*options, console); });
    options->file.AddTo(command);
    command->add_option("TARGET", options->target, "NAME.mbtiles, NAME.pmtiles, or a folder")
        ->required();
    options->filter.AddTo(command, true);
    AddScheme(command, options->scheme);
    command->add_flag("--by-name", options->isByName, "As a folder of files, each by its name");
    command->add_flag("--replace", options->replaces, "In the place of a file that is there");
  }
  {
    auto options = std::make_shared<CopyOptions>();
    CLI::App* const command = program.Add(
        "copy", "Copies tiles into another compact file, which is made if it is missing",
        [=, &console] { return Copy(*options, console); });
    options->file.AddTo(command);
    command->add_option("TARGET", options->target, "The other one")->required();
    command->add_option("--target-password", options->targetPassword, "Its password");
    options->filter.AddTo(command, true);
    command->add_flag("--versions", options->withVersions, "All versions, not only the newest");
  }
}

}  // namespace Hxcf
