#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// Runs some "processes" in orders of their system calls: first in all orders that change the turn
/// once, or kill once, at each step; or in all that do so twice, which takes long; then in random
/// ones. Each is a thread that opens files
/// by objects of its own, and one at a time runs. It may have to wait before each call of the file
/// classes that reads, writes or locks, and in the middle of a transfer that the kernel does not
/// make in one piece. What a process does must depend on nothing but the files and the order.
///
/// One object at a time. The locks are the kernel's: for it, too, they are those of several
/// processes, since each belongs to an open file description.
class Schedule {
 public:
  struct Limits {
    bool twice = false;      ///< what the first orders do
    std::size_t random = 0;  ///< how many random orders follow
    bool kills = false;      ///< whether the first process is killed
    std::size_t maps = 0;    ///< larger mappings of files than this fail; with kills, all must
    /// Where in a file to divide a transfer that is divided once; if not there, then in the middle.
    /// A kill stops a write between two pages only.
    off_t cut = 0;
  };
  struct Process {
    const char* name;
    std::function<void()> body;
  };

  explicit Schedule(const Limits& limits);
  ~Schedule();
  Schedule(const Schedule&) = delete;
  Schedule& operator=(const Schedule&) = delete;

  /// Plans the next order. False if there is none left.
  bool Next();
  /// Runs the processes to their ends in this order. If one of several others may go on, one is
  /// drawn. Answers why that was not possible, or nothing.
  std::string Run(const std::vector<Process>& processes);
  /// What was done in the last order, call by call: a line for each time that another one goes on.
  static std::string Describe();

  /// @name For a process
  /// @{

  /// What comes before is done without interruption, process by process; what follows, in any
  /// order.
  static void Begin();
  /// What comes after this is done in the end, again process by process.
  static void End();
  /// Another one may go on here.
  static void Step(const char* what);
  /// Whether this process was not killed. If it was, all its calls fail, without effect; its locks
  /// are free, and what it sees is of no interest.
  static bool IsAlive();
  /// @}
};
