#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Runs some "processes" in every order of their system calls, one order after the other. Each is a
/// thread that opens files by objects of its own, and one at a time runs. It may have to wait
/// before each call of the file classes that reads, writes or locks, and in the middle of a
/// transfer that the kernel does not make in one piece. An order is left out if it differs from
/// another one only where that makes no difference: between steps that do not concern the same
/// bytes or locks. What a process does must depend on nothing but the files and the order.
///
///   Schedule schedule(limits);
///   while (schedule.Next()) { restore the files; schedule.Run(processes); check; }
///
/// One object at a time. The locks are the kernel's: for it, too, they are those of several
/// processes, since each belongs to an open file description.
class Schedule {
 public:
  struct Limits {
    unsigned int preemptions = 2;   ///< how often one has to wait that could go on
    unsigned int kills = 0;         ///< how many of those that may be killed are killed
    std::size_t maps = 0;           ///< larger mappings of files than this fail
    bool leavesOut = true;          ///< false: no order; mappings, whose use is no step, need that
    std::size_t orders = SIZE_MAX;  ///< how many are run at most
    /// Where in a file to divide a transfer that is divided once; if not there, then in the middle.
    /// A kill stops a write between two pages only.
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

  /// Turns to the next order. False if there is none, or the limit is reached.
  bool Next();
  /// Runs the processes to their ends in this order.
  void Run(const std::vector<Process>& processes);

  /// @name For a process
  /// @{

  /// What comes before is done without interruption, process by process; what follows, in any
  /// order.
  static void Begin();
  /// What comes after this is done in the end, again process by process.
  static void End();
  /// A step: from here on this process relies on what others have told.
  static void Listen(const char* what);
  /// A step, made at once: changes what others rely on.
  static void Tell(const char* what);
  /// Whether this process was not killed. If it was, all its calls fail, without effect; its locks
  /// are free, and what it sees is of no interest.
  static bool IsAlive();
  /// @}

  /// Why the last order could not be run to the end, if so.
  const std::string& GetFailure() const;
  /// What was done in the last order, call by call: a line for each time that another one goes on.
  std::string Describe() const;
  std::size_t CountOrders() const;
  /// Whether Next has found no other order.
  bool IsComplete() const;

  struct Impl;

 private:
  const std::unique_ptr<Impl> m_impl;
};
