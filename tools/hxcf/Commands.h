#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "Archive.h"
#include "Console.h"

namespace Hxcf {

/// What the chosen command does; answers an Exit.
using Action = std::function<int()>;

/// The commands. Each is added to the program with its options, and sets the action if it is
/// chosen.
struct Program {
  CLI::App app;
  Console console;
  Action action;

  Program();
  /// A command; `run` has the values of its options when it is called.
  CLI::App* Add(const char* name, const char* description, Action run);
};

void AddLookingCommands(Program& program);   // info, ls, verify, diff
void AddTileCommands(Program& program);      // get, put, rm
void AddFileCommands(Program& program);      // create, compact, meta, password
void AddTransferCommands(Program& program);  // import, export, copy
void AddServingCommands(Program& program);   // serve

/// FILE and how it is opened: options that most commands have.
struct FileOptions {
  std::string path;
  std::string password;

  void AddTo(CLI::App* command, const char* what = "The compact file, or the folder of grids");
  Archive Open(bool forReading) const;
  hx::Options GetOptions(bool forReading) const;
};

/// Zooms, box and prefix.
struct FilterOptions {
  std::optional<std::uint32_t> minZoom, maxZoom;
  std::vector<double> box;
  std::string prefix;

  void AddTo(CLI::App* command, bool withPrefix);
  Archive::Filter Get() const;
};

/// The commands as roff: "hxcf.1", or "hxcf-COMMAND.1".
std::string MakeManPage(const CLI::App& app, const std::string& command);
/// Completion of commands and options for bash.
std::string MakeCompletion(const CLI::App& app);

}  // namespace Hxcf
