#include "ChangeWatch.h"

#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "Descriptors.h"
#include "ZrMutex.h"

namespace Zarn {

struct ChangeWatch::Inode {
  explicit Inode(int number) : watch(number) {}

  int watch;  // below 0: lost
  int users = 0;
  Counts counts = {1, 1};
};

namespace {

using Inode = ChangeWatch::Inode;

constexpr std::uint32_t kNameEvents = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t kZfsMagic = 0x2fc12fc1;  // not among the kernel's own

void Count(Inode& inode, bool names) {
  ++inode.counts.events;
  if (names) inode.counts.names = inode.counts.events;
}

// The queue and the watched inodes. The kernel gives one watch per inode, so objects on the same
// file share an entry; its last user ends the watch. The queue stays, one descriptor for the
// process: to close it would take the kernel some 15 milliseconds.
class WatchRegistry {
 public:
  static WatchRegistry& Get() {
    static WatchRegistry& registry = *new WatchRegistry;  // outlives all static objects
    return registry;
  }

  std::shared_ptr<Inode> Add(int fd) {
    const std::lock_guard guard(m_mutex);
    if (m_fd < 0) {
      m_inodes.clear();  // of a queue that was lost
      m_fd = AboveStandardStreams(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    }
    // By way of the descriptor: the path could lead to another file by now.
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const int watch = ::inotify_add_watch(m_fd, path.c_str(), IN_MODIFY | kNameEvents);
    std::shared_ptr<Inode> inode;
    if (watch >= 0) {
      inode = m_inodes.try_emplace(watch, std::make_shared<Inode>(watch)).first->second;
      ++inode->users;
    }
    return inode;
  }

  void Remove(Inode& inode) {
    const std::lock_guard guard(m_mutex);
    if (--inode.users == 0 && inode.watch >= 0) {
      ::inotify_rm_watch(m_fd, inode.watch);
      m_inodes.erase(inode.watch);
    }
  }

  ChangeWatch::Counts Poll(const Inode& inode) {
    const std::lock_guard guard(m_mutex);
    if (inode.watch >= 0) Drain();
    return inode.watch >= 0 ? inode.counts : ChangeWatch::Counts();
  }

 private:
  friend void HandleForkOf<WatchRegistry>();

  WatchRegistry() { HandleForkOf<WatchRegistry>(); }

  void Drain() {
    alignas(inotify_event) char buffer[4096];
    ssize_t size;
    do {  // only a full buffer can leave events behind: those of files are all of one size
      size = Uninterrupted([&] { return ::read(m_fd, buffer, sizeof buffer); });
      inotify_event event;
      for (ssize_t offset = 0; offset < size; offset += ssize_t{sizeof event} + event.len) {
        std::memcpy(&event, buffer + offset, sizeof event);
        Apply(event);
      }
    } while (size == ssize_t{sizeof buffer});
    if (size < 0 && errno != EAGAIN) Abandon();
  }

  // Equal events in succession arrive as one: each tells that something happened, not how often.
  void Apply(const inotify_event& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      for (auto& [watch, inode] : m_inodes)
        Count(*inode, true);
      return;
    }
    const auto found = m_inodes.find(event.wd);
    if (found == m_inodes.end()) return;  // the rest of a watch that was ended
    Count(*found->second, (event.mask & kNameEvents) != 0);
    if ((event.mask & IN_IGNORED) == 0) return;
    // The kernel ended the watch; or it ended an earlier one of this number, which has been given
    // out again since. Then its users lose their watch for nothing, which does no harm.
    found->second->watch = -1;
    m_inodes.erase(found);
  }

  // Ends all watches, but leaves the entries until there is a new queue: a forked child is no
  // place to free memory.
  void Abandon() {
    for (auto& [watch, inode] : m_inodes)
      inode->watch = -1;
    if (m_fd >= 0) GetFileSyscalls().close(m_fd);
    m_fd = -1;
  }

  // Parent and child would take each other's events.
  void DropInChild() { Abandon(); }

  ZrMutex m_mutex;
  int m_fd = -1;
  std::map<int, std::shared_ptr<Inode>> m_inodes;
};

}  // namespace

void ChangeWatch::Start(int fd) {
  Stop();
  m_inode = WatchRegistry::Get().Add(fd);
}

void ChangeWatch::Stop() {
  if (m_inode) WatchRegistry::Get().Remove(*m_inode);
  m_inode = nullptr;
}

ChangeWatch::Counts ChangeWatch::Poll() {
  return m_inode ? WatchRegistry::Get().Poll(*m_inode) : Counts();
}

bool IsOnLocalFileSystem(int fd) {
  constexpr std::uint32_t kLocal[] = {
      EXT4_SUPER_MAGIC,  XFS_SUPER_MAGIC,       BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC,
      TMPFS_MAGIC,       RAMFS_MAGIC,           MSDOS_SUPER_MAGIC, EXFAT_SUPER_MAGIC,
      SQUASHFS_MAGIC,    EROFS_SUPER_MAGIC_V1,  ISOFS_SUPER_MAGIC, REISERFS_SUPER_MAGIC,
      NILFS_SUPER_MAGIC, OVERLAYFS_SUPER_MAGIC, kZfsMagic};
  struct statfs status;
  return Uninterrupted([&] { return ::fstatfs(fd, &status); }) == 0 &&
         std::ranges::find(kLocal, static_cast<std::uint32_t>(status.f_type)) != std::end(kLocal);
}

}  // namespace Zarn
