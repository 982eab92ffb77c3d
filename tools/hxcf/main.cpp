// hxcf: looks into compact files of tiles, fills, empties, changes and checks them.

#include <cstdio>
#include <exception>

#include "Commands.h"
#include "FormatError.h"

namespace Hxcf {

Program::Program()
    : app("Looks into compact files of tiles, fills, empties and checks them.", "hxcf") {
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.add_flag("--json", console.isJson, "Results as JSON");
  app.add_flag("-q,--quiet", console.isQuiet, "No progress and no notes");
  app.set_version_flag("--version", HXCF_VERSION);
  app.set_help_flag("-h,--help", "Prints this help");
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return std::string("hxcf: ") + error.what() + "; see hxcf --help\n";
  });
  app.footer(
      "Ends with 0 if it is done; 1 if not: a tile is missing, a check has findings, two files\n"
      "differ, or a file cannot be used; 2 for a call that makes no sense.");
}

CLI::App* Program::Add(const char* name, const char* description, Action run) {
  CLI::App* const command = app.add_subcommand(name, description);
  command->callback([this, run = std::move(run)] { action = run; });
  return command;
}

void FileOptions::AddTo(CLI::App* command, const char* what) {
  command->add_option("FILE", path, what)->required();
  command->add_option("--password", password, "The password that the file was given");
}

hx::Options FileOptions::GetOptions(bool forReading) const {
  hx::Options options;
  options.read_only = forReading;
  options.password = password;
  return options;
}

Archive FileOptions::Open(bool forReading) const {
  return Archive::Open(path, GetOptions(forReading));
}

void FilterOptions::AddTo(CLI::App* command, bool withPrefix) {
  command->add_option("--min-zoom", minZoom, "Only tiles of this zoom and deeper ones");
  command->add_option("--max-zoom", maxZoom, "Only tiles of this zoom and higher ones");
  command
      ->add_option("--bbox", box, "Only tiles that meet this box: west,south,east,north in degrees")
      ->delimiter(',')
      ->expected(4);
  if (withPrefix) command->add_option("--prefix", prefix, "Only names that begin so");
}

Archive::Filter FilterOptions::Get() const {
  std::optional<hx::Bounds> bounds;
  if (!box.empty()) bounds = hx::Bounds{box[0], box[1], box[2], box[3]};
  Archive::Filter filter;
  filter.isForAll = !minZoom && !maxZoom && !bounds;
  if (minZoom.value_or(0) > maxZoom.value_or(UINT32_MAX))
    throw WrongCall("--min-zoom is more than --max-zoom");
  filter.tiles = Formats::TileFilter(minZoom.value_or(0), maxZoom.value_or(UINT32_MAX), bounds);
  filter.prefix = prefix;
  return filter;
}

namespace {

int Run(int argc, char** argv) {
  Program program;
  bool isCompletion = false;
  std::string manPage;
  program.app.add_flag("--bash-completion", isCompletion, "Prints a completion for bash")
      ->group("");
  program.app.add_option("--man", manPage, "Prints a manual page in roff")->group("");
  AddLookingCommands(program);
  AddTileCommands(program);
  AddFileCommands(program);
  AddTransferCommands(program);
  AddServingCommands(program);
  try {
    program.app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return program.app.exit(error) == 0 ? kDone : kWrongCall;
  }
  if (isCompletion || !manPage.empty()) {
    const std::string text =
        isCompletion ? MakeCompletion(program.app) : MakeManPage(program.app, manPage);
    std::fputs(text.c_str(), stdout);
    return kDone;
  }
  if (!program.action) {
    std::fputs(program.app.help().c_str(), stderr);
    return kWrongCall;
  }
  return program.action();
}

int Tell(const char* sentence, int exit) {
  std::fprintf(stderr, "hxcf: %s\n", sentence);
  return exit;
}

}  // namespace
}  // namespace Hxcf

int main(int argc, char** argv) try {
  const int result = Hxcf::Run(argc, argv);
  return std::fflush(stdout) == 0 ? result : Hxcf::Tell("cannot write the output", Hxcf::kNot);
} catch (const Hxcf::WrongCall& error) {
  return Hxcf::Tell(error.what(), Hxcf::kWrongCall);
} catch (const std::exception& error) {
  return Hxcf::Tell(error.what(), Hxcf::kNot);
}
