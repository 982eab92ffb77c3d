// What only looks: info, ls, verify, diff.

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <utility>

#include "Commands.h"
#include "TileFormat.h"

namespace Hxcf {
namespace {

/// The tiles of a zoom.
struct Zoom {
  std::uint64_t tiles = 0, bytes = 0;
  std::uint64_t smallest = std::numeric_limits<std::uint64_t>::max(), largest = 0;
  Formats::TileRange range{UINT32_MAX, 0, UINT32_MAX, 0};

  void Add(std::uint64_t size) {
    ++tiles;
    bytes += size;
    smallest = std::min(smallest, size);
    largest = std::max(largest, size);
  }
  void Add(const hx::Tile& tile, std::uint64_t size) {
    Add(size);
    range.firstX = std::min(range.firstX, tile.x);
    range.lastX = std::max(range.lastX, tile.x);
    range.firstY = std::min(range.firstY, tile.y);
    range.lastY = std::max(range.lastY, tile.y);
  }
  std::uint64_t Mean() const { return tiles != 0 ? bytes / tiles : 0; }
  Json ToJson() const {
    Json json = {{"tiles", tiles}, {"bytes", bytes}, {"mean", Mean()}};
    if (tiles != 0) json.update({{"smallest", smallest}, {"largest", largest}});
    return json;
  }
  Json ToJson(std::uint32_t zoom) const {
    Json json = {{"zoom", zoom}};
    json.update(ToJson());
    json.update({{"columns", {range.firstX, range.lastX}}, {"rows", {range.firstY, range.lastY}}});
    return json;
  }
};

struct Survey {
  std::map<std::uint32_t, Zoom> zooms;
  Zoom others;  // cells of a grid, and names that are no tiles
  std::string format;
};

Survey LookAround(Archive& archive, const Console& console) {
  Survey survey;
  Progress progress(console, "tiles");
  std::uint64_t done = 0;
  bool hasLooked = false;  // at the format of the first tile
  archive.ForEach({}, false, [&](const Archive::Address& address, const hx::Entry& entry) {
    address.tile ? survey.zooms[address.tile->z].Add(*address.tile, entry.size())
                 : survey.others.Add(entry.size());
    const bool isTile = address.tile || archive.IsGrid();
    if (isTile && !std::exchange(hasLooked, true))
      if (const auto payload = archive.Find(address))
        survey.format = Formats::NameOf(Formats::DetectFormat(*payload));
    progress.Show(++done, 0);
    return true;
  });
  return survey;
}

std::string KindOf(Archive& archive) {
  if (archive.IsNames()) return "names";
  if (!archive.IsGrid()) return "grids";
  const hx::Layout layout = archive.GetFile()->layout();
  return "grid of " + std::to_string(layout.rows()) + " rows and " + std::to_string(layout.cols()) +
         " columns";
}

void PrintInfo(Archive& archive, const Json& json, const Survey& survey) {
  const auto text = [&](const char* key) { return Bytes(json[key].get<std::uint64_t>()); };
  std::printf("kind       %s\n", json["kind"].get<std::string>().c_str());
  std::printf("size       %s: %s alive, %s dead, index %s\n", text("file_bytes").c_str(),
              text("live_bytes").c_str(), text("dead_bytes").c_str(), text("index_bytes").c_str());
  std::printf("tiles      %s, in %s versions\n", json["tiles"].dump().c_str(),
              json["versions"].dump().c_str());
  if (json["damaged"] != 0) std::printf("damaged    %s tiles\n", json["damaged"].dump().c_str());
  std::printf("format     %s\n", survey.format.empty() ? "unknown" : survey.format.c_str());
  std::printf("password   %s\n", json["password"].get<bool>() ? "yes" : "no");
  if (!survey.zooms.empty())
    std::printf("\nzoom       tiles    smallest        mean     largest  columns, rows\n");
  for (const auto& [zoom, tiles] : survey.zooms)
    std::printf("%4u  %10llu  %10s  %10s  %10s  %u to %u, %u to %u\n", zoom,
                static_cast<unsigned long long>(tiles.tiles), Bytes(tiles.smallest).c_str(),
                Bytes(tiles.Mean()).c_str(), Bytes(tiles.largest).c_str(), tiles.range.firstX,
                tiles.range.lastX, tiles.range.firstY, tiles.range.lastY);
  if (survey.others.tiles != 0 && !archive.IsGrid())
    std::printf("\nother names %llu, %s\n", static_cast<unsigned long long>(survey.others.tiles),
                Bytes(survey.others.bytes).c_str());
  if (!json.contains("metadata")) return;
  std::printf("\n");
  for (const auto& [key, value] : json["metadata"].items())
    std::printf("%-10s %s\n", key.c_str(), value.get<std::string>().c_str());
}

int Info(const FileOptions& file, const Console& console) {
  Archive archive = file.Open(true);
  const Survey survey = LookAround(archive, console);
  hx::Statistics count;
  {
    Progress progress(console, "entries");
    count = archive.Count(progress.AsFunction());
  }
  Json json = {{"kind", KindOf(archive)},         {"file_bytes", count.fileBytes},
               {"live_bytes", count.liveBytes},   {"dead_bytes", count.deadBytes},
               {"index_bytes", count.indexBytes}, {"tiles", count.tiles},
               {"versions", count.versions},      {"damaged", count.damaged},
               {"format", survey.format},         {"password", !file.password.empty()},
               {"zooms", Json::array()},          {"others", survey.others.ToJson()}};
  for (const auto& [zoom, tiles] : survey.zooms)
    json["zooms"].push_back(tiles.ToJson(zoom));
  if (hx::Tileset* const set = archive.GetSet())
    if (const hx::Metadata metadata = set->metadata(); !metadata.empty())
      json["metadata"] = metadata.values();
  console.isJson ? console.PrintJson(json) : PrintInfo(archive, json, survey);
  return kDone;
}

struct ListOptions {
  FileOptions file;
  FilterOptions filter;
  std::optional<std::uint32_t> zoom;
  bool withVersions = false, isLong = false;
};

Json ToJson(const hx::Version& version) {
  return {{"stamp", version.stamp}, {"bytes", version.capacity}, {"filled", version.filledLength}};
}

int List(ListOptions& options, const Console& console) {
  Archive archive = options.file.Open(true);
  if (options.zoom) options.filter.minZoom = options.filter.maxZoom = options.zoom;
  const auto print = [&](const Archive::Address& address, const hx::Entry& entry) {
    if (console.isJson) {
      Json json = {{"key", address.text},
                   {"bytes", entry.size()},
                   {"filled", entry.filled()},
                   {"stamps", entry.stamps()}};
      if (options.withVersions) {
        json["versions"] = Json::array();
        for (const hx::Version& version : archive.Versions(address))
          json["versions"].push_back(ToJson(version));
      }
      std::printf("%s\n", json.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
      return true;
    }
    if (options.isLong)
      std::printf("%10llu %20llu  ", static_cast<unsigned long long>(entry.size()),
                  entry.stamps().front());
    std::printf("%s\n", address.text.c_str());
    if (options.withVersions)
      for (const hx::Version& version : archive.Versions(address))
        std::printf("    %llu: %llu of %llu bytes\n", version.stamp, version.filledLength,
                    version.capacity);
    return true;
  };
  archive.ForEach(options.filter.Get(), false, print);
  return kDone;
}

// A check ends if an index of names grows, for it was of the smaller one. That is rare, for each is
// twice as large.
bool IsSound(Archive& archive, const std::function<bool(const hx::Finding&)>& report) {
  constexpr int kTries = 20;
  for (int i = 1;; ++i)
    try {
      return archive.IsGrid() ? archive.GetFile()->verify(report)
                              : archive.GetSet()->verify(report);
    } catch (const hx::Error& error) {
      if (error.cause() != hx::Cause::kMoved || i == kTries) throw;
    }
}

int Verify(const FileOptions& file, bool showsAll, const Console& console) {
  constexpr std::uint64_t kMost = 20;
  Archive archive = file.Open(true);
  Json findings = Json::array();
  std::uint64_t count = 0;
  const auto report = [&](const hx::Finding& finding) {
    if (++count > kMost && !showsAll) return true;
    if (console.isJson)
      findings.push_back({{"byte", finding.position},
                          {"number", finding.number},
                          {"row", finding.row},
                          {"col", finding.col},
                          {"version", finding.version},
                          {"message", finding.message}});
    else
      std::printf("byte %llu, entry %llu, version %llu: %s\n", finding.position, finding.number,
                  finding.version, finding.message);
    return true;
  };
  const bool isSound = IsSound(archive, report);
  if (console.isJson) {
    console.PrintJson({{"sound", isSound}, {"findings", count}, {"list", findings}});
  } else {
    if (count > kMost && !showsAll)
      std::printf("and %llu more\n", static_cast<unsigned long long>(count - kMost));
    std::printf(isSound ? "sound\n" : "%llu findings\n", static_cast<unsigned long long>(count));
  }
  return isSound ? kDone : kNot;
}

/// Two archives, and which tiles of theirs differ.
class Difference {
 public:
  Difference(Archive& left, Archive& right, const Console& console)
      : m_left(left), m_right(right), m_console(console) {}

  int Run() {
    Progress progress(m_console, "compared");
    CompareMetadata();
    m_left.ForEach({}, true, [&](const Archive::Address& address, const hx::Entry& entry) {
      if (IsMetadata(address)) return true;
      const auto same = m_right.FindSame(address);
      const auto other = same ? m_right.Find(*same) : std::nullopt;
      if (!other)
        Tell("-", address.text);
      else if (entry.payload() != hx::Bytes(*other))
        Tell("!", address.text);
      progress.Show(++m_compared, 0);
      return true;
    });
    m_right.ForEach({}, false, [&](const Archive::Address& address, const hx::Entry&) {
      const auto same = m_left.FindSame(address);
      if (!IsMetadata(address) && !(same && m_left.Contains(*same))) Tell("+", address.text);
      return true;
    });
    if (m_console.isJson) m_console.PrintJson({{"compared", m_compared}, {"differences", m_list}});
    return m_isSame ? kDone : kNot;
  }

 private:
  static bool IsMetadata(const Archive::Address& address) {
    return address.text == hx::Tileset::kMetadataName;
  }
  // As a whole, for a set of grids has them elsewhere.
  void CompareMetadata() {
    const auto read = [](Archive& archive) {
      return archive.GetSet() != nullptr ? archive.GetSet()->metadata() : hx::Metadata();
    };
    if (read(m_left).values() != read(m_right).values()) Tell("!", hx::Tileset::kMetadataName);
  }
  void Tell(const char* what, const std::string& key) {
    m_isSame = false;
    if (m_console.isJson)
      m_list.push_back({{"what", what}, {"key", key}});
    else
      std::printf("%s %s\n", what, key.c_str());
  }

  Archive& m_left;
  Archive& m_right;
  const Console& m_console;
  bool m_isSame = true;
  std::uint64_t m_compared = 0;
  Json m_list = Json::array();
};

}  // namespace

void AddLookingCommands(Program& program) {
  const Console& console = program.console;
  {
    auto file = std::make_shared<FileOptions>();
    file->AddTo(program.Add("info", "Tells what a file holds: kind, size, tiles by zoom, metadata",
                            [=, &console] { return Info(*file, console); }));
  }
  {
    auto options = std::make_shared<ListOptions>();
    CLI::App* const command =
        program.Add("ls", "Lists the tiles, in no order of names; as JSON, one object in each line",
                    [=, &console] { return List(*options, console); });
    options->file.AddTo(command);
    options->filter.AddTo(command, true);
    command->add_option("--zoom", options->zoom, "Only tiles of this zoom");
    command->add_flag("--versions", options->withVersions, "All versions of each");
    command->add_flag("-l,--long", options->isLong, "With size and newest stamp");
  }
  {
    auto file = std::make_shared<FileOptions>();
    auto showsAll = std::make_shared<bool>(false);
    CLI::App* const command =
        program.Add("verify", "Checks whether a file is sound; ends with 1 if it is not",
                    [=, &console] { return Verify(*file, *showsAll, console); });
    file->AddTo(command);
    command->add_flag("--all", *showsAll, "All findings, not only the first 20");
  }
  {
    auto left = std::make_shared<FileOptions>();
    auto right = std::make_shared<FileOptions>();
    CLI::App* const command =
        program.Add("diff", "Compares the newest versions of two files; ends with 1 if they differ",
                    [=, &console] {
                      Archive a = left->Open(true), b = right->Open(true);
                      return Difference(a, b, console).Run();
                    });
    command->add_option("A", left->path, "A file; - marks what only it has")->required();
    command->add_option("B", right->path, "Another one; + marks what only it has, ! what differs")
        ->required();
    command->add_option("--password", left->password, "The password of A");
    command->add_option("--password-b", right->password, "The password of B");
  }
}

}  // namespace Hxcf
