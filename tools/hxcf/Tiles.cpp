// Single tiles: get, put, rm.

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>

#include "Commands.h"

namespace Hxcf {
namespace {

[[noreturn]] void FailAt(const std::string& path, const char* what) {
  throw std::system_error(errno, std::generic_category(),
                          std::string("cannot ") + what + " " + path);
}

std::string ReadAll(const std::string& path) {
  std::string bytes;
  std::FILE* const file = path.empty() || path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (file == nullptr) FailAt(path, "open");
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(file == stdin ? nullptr : file,
                                                               std::fclose);
  char buffer[1 << 16];
  for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
    bytes.append(buffer, got);
  if (std::ferror(file) != 0) FailAt(path, "read");
  return bytes;
}

void WriteAll(const std::string& path, hx::Bytes bytes) {
  if (path.empty() || path == "-") {
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    return;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.text().data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) FailAt(path, "write");
}

struct TileOptions {
  FileOptions file;
  std::string key, path;
  std::optional<hx::Stamp> version;
  bool all = false;

  void AddTo(CLI::App* command) {
    file.AddTo(command);
    command->add_option("KEY", key, "ROW,COL of a grid; ZOOM/COLUMN/ROW, or any name")->required();
  }
};

int Missing(const TileOptions& options, const Console& console) {
  if (console.isJson)
    console.PrintJson({{"found", false}});
  else
    std::fprintf(stderr, "hxcf: %s has no tile %s\n", options.file.path.c_str(),
                 options.key.c_str());
  return kNot;
}

bool HasVersion(Archive& archive, const Archive::Address& address, hx::Stamp stamp) {
  for (const hx::Version& version : archive.Versions(address))
    if (version.stamp == stamp) return true;
  return false;
}

int Get(const TileOptions& options, const Console& console) {
  Archive archive = options.file.Open(true);
  const auto address = archive.Parse(options.key);
  // A lookup of a stamp that is not there would give the newest version.
  if (options.version && !HasVersion(archive, address, *options.version))
    return Missing(options, console);
  const auto payload = archive.Find(address, options.version.value_or(hx::kNewest));
  if (!payload) return Missing(options, console);
  if (!console.isJson || !options.path.empty()) WriteAll(options.path, *payload);
  if (console.isJson)
    console.PrintJson({{"found", true},
                       {"bytes", payload->size()},
                       {"filled", payload->filled()},
                       {"stamp", payload->stamp()}});
  return kDone;
}

int PutOne(const TileOptions& options) {
  Archive archive = options.file.Open(false);
  const auto address = archive.Parse(options.key);
  archive.Put(address, ReadAll(options.path), {options.version.value_or(0)});
  return kDone;
}

int Remove(const TileOptions& options, const Console& console) {
  Archive archive = options.file.Open(false);
  const auto address = archive.Parse(options.key);
  if (!options.version && !options.all && archive.Versions(address).size() > 1)
    throw WrongCall(options.key + " has several versions: name one by --stamp, or say --all");
  const bool isDone =
      options.version ? archive.Erase(address, *options.version) : archive.Erase(address);
  if (!isDone) return Missing(options, console);
  return kDone;
}

}  // namespace

void AddTileCommands(Program& program) {
  const Console& console = program.console;
  {
    auto options = std::make_shared<TileOptions>();
    CLI::App* const command = program.Add("get", "Writes a tile to the standard output or a file",
                                          [=, &console] { return Get(*options, console); });
    options->AddTo(command);
    command->add_option("-o,--output", options->path, "The file to write");
    command->add_option("--stamp", options->version, "The version of this stamp, not the newest");
  }
  {
    auto options = std::make_shared<TileOptions>();
    CLI::App* const command = program.Add("put", "Stores a tile", [=] { return PutOne(*options); });
    options->AddTo(command);
    command->add_option("SOURCE", options->path, "A file; without, the standard input");
    command->add_option("--stamp", options->version, "The stamp of the version; 0 by default");
  }
  {
    auto options = std::make_shared<TileOptions>();
    CLI::App* const command = program.Add("rm", "Removes a tile, or one version of it",
                                          [=, &console] { return Remove(*options, console); });
    options->AddTo(command);
    auto* const stamp =
        command->add_option("--stamp", options->version, "The version of this stamp");
    command->add_flag("--all", options->all, "All versions")->excludes(stamp);
  }
}

}  // namespace Hxcf
