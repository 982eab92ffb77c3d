// Serves files over HTTP: serve.

#include <malloc.h>

#include <csignal>
#include <cstdio>

#include "Commands.h"
#include "Server.h"

namespace Hxcf {
namespace {

// Ends with 0 when it is told to: by SIGTERM, or SIGINT from the keyboard.
int Run(const Serve::Options& options, const Console& console) {
  // What large tiles take goes back to the system. Without a limit that is said, the allocator
  // raises its own until it keeps them: 528 MB after some of 60 MB, instead of 16.
  ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  // The threads of the server inherit this, so that only the wait below takes them.
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const Serve::Server server(options);
  for (const std::string& sentence : server.LeftOut())
    std::fprintf(stderr, "hxcf: %s; it is left out\n", sentence.c_str());
  std::string names;
  for (const std::string& name : server.Names())
    names += (names.empty() ? "" : ", ") + name;
  if (console.isJson)
    console.PrintJson({{"address", server.Location()}, {"files", server.Names()}});
  else
    std::printf("serving %s at %s\n", names.c_str(), server.Location().c_str());
  std::fflush(stdout);
  int signal = 0;
  sigwait(&signals, &signal);
  return kDone;
}

}  // namespace

void AddServingCommands(Program& program) {
  const Console& console = program.console;
  auto options = std::make_shared<Serve::Options>();
  CLI::App* const command =
      program.Add("serve", "Serves files over HTTP: a map, tiles, statistics; while others write",
                  [=, &console] { return Run(*options, console); });
  command
      ->add_option("FILE", options->paths,
                   "Compact files, folders of grids, and folders with some of both")
      ->required();
  command->add_option("--port", options->port, "The port; 0 chooses a free one; 8080 by default")
      ->check(CLI::Range(0, 65535));
  command->add_option("--host", options->host, "The address to listen at; 127.0.0.1 by default");
  command->add_option("--cors", options->cors,
                      "The origin whose pages may use the tiles, or * for all");
  command->add_option("--public-url", options->publicUrl,
                      "Where clients find the server, if that is behind another one");
  command
      ->add_option("--missing", options->missingStatus,
                   "The status for a tile that is not there: 204, which is the default, or 404")
      ->check(CLI::IsMember({204, 404}));
  command->add_option("--max-age", options->maxAge,
                      "Seconds for which a cache need not ask again; 0 by default");
  command
      ->add_option("--threads", options->threads,
                   "How many connections are answered at a time; 128 by default")
      ->check(CLI::Range(2, 4096));
  command->add_option("--password", options->password, "The password that the files were given");
}

}  // namespace Hxcf
