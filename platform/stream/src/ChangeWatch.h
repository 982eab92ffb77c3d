#pragma once

#include <cstdint>
#include <memory>

namespace Zarn {

/// Counts what any process does to the file open at a descriptor: writes, truncations, a new name,
/// the loss of a name. The kernel reports an event within the system call that causes it, so the
/// watch also counts a change by a process that was killed right afterwards. It does not count
/// writes through a memory mapping.
///
/// All objects of a process share one queue of events; objects on the same file see the same
/// counts. Safe from several threads, one at a time per object. A forked child has no watch until
/// it starts one.
class ChangeWatch {
 public:
  struct Counts {
    std::uint64_t events = 0;  ///< of any kind, from 1 up
    std::uint64_t names = 0;   ///< `events` as it was when the names may last have changed
  };

  ChangeWatch() = default;
  ~ChangeWatch() { Stop(); }
  ChangeWatch(const ChangeWatch&) = delete;
  ChangeWatch& operator=(const ChangeWatch&) = delete;

  /// Watches a regular file instead of an earlier one. This may fail: too many watches in use,
  /// events forbidden, or a file system that other hosts change. Then Poll returns zeros.
  void Start(int fd);
  void Stop();
  /// The counts, with all events up to now. Zeros if there is no watch, or none any more.
  Counts Poll();

  struct Inode;

 private:
  std::shared_ptr<Inode> m_inode;
};

/// Whether all changes to the file open at `fd` are made through this kernel.
bool IsOnLocalFileSystem(int fd);

}  // namespace Zarn
