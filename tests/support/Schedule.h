#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

/// Runs some "processes" in every order of their system calls, one order after the other. Each is a
/// thread that opens files by objects of its own; one at a time runs. It may have to wait before
/// each call of the file classes that reads, writes or locks a file, and in the middle of a
/// transfer that the kernel does not make in one piece. Orders are told apart by where that
/// happens, so what does not depend on the order must be the same each time. One object at a time;
/// to the kernel the locks are those of several processes, for each belongs to an open file
/// description.
///
///   Schedule schedule(limits);
///   while (schedule.Next()) { restore the files; schedule.Run(processes); check; }
class Schedule {
 public:
  struct Limits {
    unsigned int preemptions = 2;   ///< how often one has to wait that could go on
    unsigned int kills = 0;         ///< how many of those that may be killed are killed
    std::size_t maps = 0;           ///< larger mappings of files than this fail
    std::size_t orders = SIZE_MAX;  ///< how many are run at most
    /// Where in a file to divide a transfer if it can be: elsewhere it is in the middle. A kill
    /// stops a write between two pages only.
    std::vector<off_t> cuts = {};
  };
  struct Process {
    const char* name;
    bool mayBeKilled;
    std::function<void()> body;
  };

  explicit Schedule(Limits limits);
  ~Schedule();
  Schedule(const Schedule&) = delete;
  Schedule& operator=(const Schedule&) = delete;

  /// Turns to the next order. False if there is none, or a limit is reached.
  bool Next();
  /// Runs the processes to their ends in this order.
  void Run(const std::vector<Process>& processes);

  /// @name For a process
  /// @{

  /// What comes before is done without interruption, process by process; what follows, in any
  /// order.
  static void Begin();
  /// Another one may go first here, too. True unless this process was killed: all its calls fail,
  /// without effect, its locks are free, and what it sees is of no interest.
  static bool Pause(const char* what);
  /// The same, without going out of the way.
  static bool IsAlive();
  /// @}

  /// Why the last order could not be run to the end, if so.
  const std::string& GetFailure() const;
  /// What was done in the last order, call by call.
  std::string Describe() const;
  std::size_t CountOrders() const;
  /// Whether no limit but those of preemptions and kills has left out any order.
  bool IsComplete() const;

  struct Impl;

 private:
  Impl* const m_impl;
};
