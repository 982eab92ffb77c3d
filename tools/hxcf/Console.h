#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace Hxcf {

using Json = nlohmann::ordered_json;

/// How a command ends.
enum Exit : int {
  kDone = 0,
  kNot = 1,        ///< a tile is missing, a check has findings, two sets differ, a file fails
  kWrongCall = 2,  ///< what was asked for makes no sense
};

/// A call that makes no sense; what() is the sentence.
class WrongCall : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What all commands say, and to whom: results to the standard output, everything else to stderr.
struct Console {
  bool isJson = false;   ///< results as JSON
  bool isQuiet = false;  ///< no progress, no notes

  /// A sentence for whoever runs the command.
  void Note(const std::string& text) const;
  /// Whether somebody sees the progress.
  bool ShowsProgress() const;
  void PrintJson(const Json& json) const;
};

/// The progress of one command, in one line that is written again and again; only on a terminal.
class Progress {
 public:
  Progress(const Console& console, std::string what);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// `total`: 0 if that is not known.
  void Show(std::uint64_t done, std::uint64_t total);
  /// For calls that take such a function; it never ends them.
  std::function<bool(std::uint64_t, std::uint64_t)> AsFunction() {
    return [this](std::uint64_t done, std::uint64_t total) {
      Show(done, total);
      return true;
    };
  }

 private:
  using Clock = std::chrono::steady_clock;

  const std::string m_what;
  const bool m_isShown;
  const Clock::time_point m_begin = Clock::now();
  Clock::time_point m_next = m_begin;
  bool m_hasLine = false;
};

/// "1.2 MB"
std::string Bytes(std::uint64_t bytes);

}  // namespace Hxcf
