// A file as a whole: create, compact, meta, password.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>

#include "Commands.h"

namespace Hxcf {
namespace {

struct CreateOptions {
  FileOptions file;
  std::string layout = "names";
  std::uint32_t rows = 0, cols = 0, capacity = 1024;
  bool replace = false;
};

int Create(const CreateOptions& options) {
  if (options.layout == "grid" && (options.rows == 0 || options.cols == 0))
    throw WrongCall("a grid needs --rows and --cols");
  const auto layout = options.layout == "grid" ? hx::Layout::grid(options.rows, options.cols)
                                               : hx::Layout::names(options.capacity);
  const hx::Options how = options.file.GetOptions(false);
  options.replace ? hx::Container::replace(options.file.path, layout, how)
                  : hx::Container::create(options.file.path, layout, how);
  return kDone;
}

// Of the file, or of all files in the folder of grids.
std::uint64_t SizeOf(Archive& archive, const std::filesystem::path& path) {
  if (archive.GetFile() != nullptr) return std::filesystem::file_size(archive.GetFile()->path());
  std::uint64_t size = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    if (entry.is_regular_file()) size += entry.file_size();
  return size;
}

int Compact(const FileOptions& file, const Console& console) {
  Archive archive = file.Open(false);
  const std::uint64_t before = SizeOf(archive, file.path);
  {
    Progress progress(console, "bytes");
    archive.IsGrid() ? archive.GetFile()->compact(progress.AsFunction())
                     : archive.GetSet()->compact(progress.AsFunction());
  }
  const std::uint64_t after = SizeOf(archive, file.path);
  if (console.isJson)
    console.PrintJson({{"before", before}, {"after", after}});
  else
    console.Note(Bytes(before) + " before, " + Bytes(after) + " after");
  return kDone;
}

struct MetaOptions {
  FileOptions file;
  std::string what, key, value;
};

hx::Tileset& SetOf(Archive& archive) {
  if (archive.IsGrid()) throw WrongCall("a grid has no metadata");
  return *archive.GetSet();
}

// get [KEY]; set KEY VALUE; import [FILE]; export [FILE]
int Meta(const MetaOptions& options, const Console& console) {
  const bool isReading = options.what == "get" || options.what == "export";
  Archive archive = options.file.Open(isReading);
  hx::Tileset& set = SetOf(archive);
  hx::Metadata metadata = set.metadata();
  if (options.what == "get" && !options.key.empty()) {
    if (metadata.values().count(options.key) == 0)
      throw std::runtime_error(options.file.path + " has no metadata " + options.key);
    std::printf("%s\n", metadata.get(options.key).c_str());
  } else if (options.what == "get" && !console.isJson) {
    for (const auto& [key, value] : metadata.values())
      std::printf("%s=%s\n", key.c_str(), value.c_str());
  } else if (options.what == "set") {
    if (options.key.empty()) throw WrongCall("meta set needs a key and a value");
    options.value.empty() ? metadata.erase(options.key) : metadata.set(options.key, options.value);
    set.set_metadata(metadata);
  } else if (options.what == "import") {
    std::ifstream file(options.key, std::ios::binary);
    std::istream& in = options.key.empty() ? std::cin : file;
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    const auto read = hx::Metadata::from_json(text);
    if (!in.eof() && in.fail()) throw std::runtime_error("cannot read " + options.key);
    if (!read) throw std::runtime_error(options.key + " is no JSON object");
    set.set_metadata(*read);
  } else if (options.key.empty()) {
    std::printf("%s\n", metadata.to_json().c_str());
  } else {
    std::ofstream file(options.key, std::ios::binary);
    if (!(file << metadata.to_json() << "\n").flush())
      throw std::runtime_error("cannot write " + options.key);
  }
  return kDone;
}

int ChangePassword(const FileOptions& file, const std::string& next) {
  Archive archive = file.Open(false);
  if (archive.GetFile() == nullptr) throw WrongCall("grids get their passwords one by one");
  archive.GetFile()->set_password(next);
  return kDone;
}

}  // namespace

void AddFileCommands(Program& program) {
  const Console& console = program.console;
  {
    auto options = std::make_shared<CreateOptions>();
    CLI::App* const command =
        program.Add("create", "Creates an empty file", [=] { return Create(*options); });
    options->file.AddTo(command, "The file; .cf is appended to a name without an extension");
    command->add_option("--layout", options->layout, "names or grid")
        ->check(CLI::IsMember({"names", "grid"}));
    command->add_option("--rows", options->rows, "Rows of a grid");
    command->add_option("--cols", options->cols, "Columns of a grid");
    command->add_option("--capacity", options->capacity, "Room for so many names at first");
    command->add_flag("--replace", options->replace, "In the place of a file that is there");
  }
  {
    auto file = std::make_shared<FileOptions>();
    file->AddTo(program.Add("compact", "Frees the space of replaced and removed tiles",
                            [=, &console] { return Compact(*file, console); }));
  }
  {
    auto options = std::make_shared<MetaOptions>();
    CLI::App* const command =
        program.Add("meta", "Reads and changes the metadata, by the keys of MBTiles",
                    [=, &console] { return Meta(*options, console); });
    options->file.AddTo(command);
    command
        ->add_option("WHAT", options->what,
                     "get [KEY], set KEY [VALUE], import [JSON-FILE] or export [JSON-FILE]")
        ->required()
        ->check(CLI::IsMember({"get", "set", "import", "export"}));
    command->add_option("KEY", options->key, "The key, or the file with JSON");
    command->add_option("VALUE", options->value, "Its new text; none removes the key");
  }
  {
    auto file = std::make_shared<FileOptions>();
    auto next = std::make_shared<std::string>();
    CLI::App* const command =
        program.Add("password", "Changes the password, which only guards against mistakes",
                    [=] { return ChangePassword(*file, *next); });
    file->AddTo(command);
    command->add_option("NEW", *next, "The new one; none by default");
  }
}

}  // namespace Hxcf
