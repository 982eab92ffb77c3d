#include "support/Schedule.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <semaphore>
#include <thread>
#include <utility>

#include "FileSyscalls.h"

using namespace std::string_literals;

namespace {

constexpr std::size_t kNever = SIZE_MAX;
constexpr off_t kWord = 8, kPage = 4096;

struct Worker {
  const Schedule::Process& process;
  bool isDone = false, isDead = false;
  std::size_t waitsSince = kNever;  // for a lock, which it asked for when so many had been freed
  bool polls = false;               // it could go on without the lock
  bool wasRefused = false;          // one, by its last step
  std::vector<int> files = {};
  std::binary_semaphore go{0};
  std::thread thread = {};
};
using Workers = std::vector<Worker*>;

thread_local Worker* t_worker = nullptr;
Zarn::FileSyscalls g_calls;  // the kernel's
Schedule::Limits g_limits;
std::mt19937 g_random;
std::vector<std::unique_ptr<Worker>> g_workers;
std::binary_semaphore g_main{0};
bool g_isRunning = false;             // all have begun
std::size_t g_step;                   // so many have been made
std::vector<std::size_t> g_switches;  // the steps before which another one goes on
std::size_t g_first, g_second;        // the changes of turn and the kill of the order, in turn
std::size_t g_drawn;                  // orders until now
std::size_t g_kill;                   // the first step at which the first one can be killed
std::size_t g_frees = 0;              // of locks
const Worker* g_last;                 // that has made a step
std::string g_steps, g_failure;

// Those beside the running one that do not wait for a lock; or else those that poll for it; or
// else all.
Workers FindOthers(bool onlyFree) {
  Workers found[3];
  for (const auto& other : g_workers)
    if (!other->isDone && other.get() != t_worker)
      found[other->waitsSince != g_frees ? 0 : other->polls ? 1 : 2].push_back(other.get());
  return onlyFree || !found[0].empty() ? found[0] : !found[1].empty() ? found[1] : found[2];
}

// One of them, if there are any.
bool LetGo(const Workers& others) {
  if (!others.empty()) others[g_random() % others.size()]->go.release();
  return !others.empty();
}

// The kernel frees its locks.
void Die() {
  g_kill = kNever;
  t_worker->isDead = true;
  ++g_frees;
  struct flock all = {};
  all.l_type = F_UNLCK;
  for (const int fd : t_worker->files)
    g_calls.lock(fd, F_OFD_SETLK, &all);
}

// Before a step: whether it is made. Without effect and answer if it is not.
bool Enter(const std::string& what, bool mayDie) {
  Worker& self = *t_worker;
  if (self.isDead) return false;
  self.wasRefused = false;
  if (std::erase(g_switches, ++g_step) > 0 && LetGo(FindOthers(true))) self.go.acquire();
  if (mayDie && g_step >= g_kill && &self == g_workers.front().get()) Die();
  if (std::exchange(g_last, &self) != &self) g_steps += "\n  "s + self.process.name + ": ";
  g_steps += (self.isDead ? "is killed" : what) + ", ";
  return !self.isDead;
}

// Until somebody has freed a lock; false if nobody will.
bool Wait(bool polls) {
  Worker& self = *t_worker;
  self.waitsSince = g_frees;
  self.polls = polls;
  if (LetGo(FindOthers(false))) self.go.acquire();
  const bool isFreed = std::exchange(self.waitsSince, kNever) != g_frees;
  if (!isFreed && !polls) g_failure = "All wait for a lock";
  return isFreed;
}

void Leave() {
  t_worker->isDone = true;
  if (!LetGo(FindOthers(false))) g_main.release();
}

bool IsRunning() { return t_worker != nullptr && g_isRunning; }

// A change that is made at once.
template <typename Call, typename... Arguments>
int Pass(const char* what, Call call, Arguments... arguments) {
  return IsRunning() && !Enter(what, true) ? (errno = EIO, -1) : call(arguments...);
}

// Where to divide a transfer that has come to `position`: few words are moved word by word, as they
// lie in the file, and others in two parts; writes between pages, too.
off_t FindCut(bool writes, off_t begin, off_t position, off_t end) {
  const off_t page = (position / kPage + 1) * kPage, cut = g_limits.cut;
  if (end - begin <= 4 * kWord) return std::min((position / kWord + 1) * kWord, end);
  if (writes && page < end) return page;
  if (position != begin) return end;
  return begin < cut && cut < end ? cut : (begin + end) / 2 / kWord * kWord;
}

template <typename Call, typename Bytes>
ssize_t Transfer(Call call, bool writes, int fd, Bytes* bytes, std::size_t size, off_t begin) {
  if (!IsRunning()) return call(fd, bytes, size, begin);
  const off_t end = begin + static_cast<off_t>(size);
  ssize_t done = 0;
  for (off_t position = begin; position < end; position = begin + done) {
    const auto part = static_cast<std::size_t>(FindCut(writes, begin, position, end) - position);
    const bool mayDie = writes && (position == begin || position % kPage == 0);
    const std::string place = std::to_string(position) + '+' + std::to_string(part);
    if (!Enter((writes ? "writes " : "reads ") + place, mayDie)) return errno = EIO, -1;
    const ssize_t moved = call(fd, bytes + done, part, position);
    if (moved < 0) return done == 0 ? moved : done;
    done += moved;
    if (moved < static_cast<ssize_t>(part)) break;
  }
  return done;
}

ssize_t Read(int fd, void* bytes, std::size_t size, off_t position) {
  return Transfer(g_calls.pread, false, fd, static_cast<char*>(bytes), size, position);
}

ssize_t Write(int fd, const void* bytes, std::size_t size, off_t position) {
  return Transfer(g_calls.pwrite, true, fd, static_cast<const char*>(bytes), size, position);
}

ssize_t WriteParts(int fd, const iovec* parts, int count, off_t position) {
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  return Write(fd, bytes.data(), bytes.size(), position);
}

int Open(const char* path, int flags, mode_t mode) {
  if (IsRunning() && t_worker->isDead) return errno = EIO, -1;
  const int fd = g_calls.open(path, flags, mode);
  if (fd >= 0 && t_worker != nullptr) t_worker->files.push_back(fd);
  return fd;
}

int Close(int fd) {
  if (t_worker != nullptr) std::erase(t_worker->files, fd);
  ++g_frees;
  return g_calls.close(fd);
}

void* Map(void* address, std::size_t size, int protection, int flags, int fd, off_t position) {
  if (size <= g_limits.maps) return g_calls.mmap(address, size, protection, flags, fd, position);
  errno = ENODEV;
  return MAP_FAILED;
}

// One that polls for a lock is told once that it cannot have it. If it asks again at once, it waits
// like one that has to.
int Lock(int fd, int command, struct flock* lock) {
  if (!IsRunning()) return g_calls.lock(fd, command, lock);
  const bool frees = lock->l_type == F_UNLCK, polls = command == F_OFD_SETLK;
  const bool isFirst = polls && !t_worker->wasRefused;
  if (!Enter(frees ? "unlocks" : "locks", frees)) return errno = EIO, -1;
  if (command == F_OFD_GETLK) return g_calls.lock(fd, command, lock);
  g_frees += frees;
  for (;;) {
    const int result = g_calls.lock(fd, F_OFD_SETLK, lock);
    t_worker->wasRefused = result != 0 && errno == EAGAIN;
    if (!t_worker->wasRefused || isFirst) return result;
    if (!Wait(polls)) return errno = EAGAIN, -1;
  }
}

}  // namespace

Schedule::Schedule(const Limits& limits) {
  g_limits = limits;
  g_random.seed(1);
  g_step = 1;
  g_first = g_second = g_drawn = 0;
  g_calls = Zarn::GetFileSyscalls();
  Zarn::FileSyscalls& calls = Zarn::GetFileSyscalls();
  calls.open = Open;
  calls.close = Close;
  calls.pread = Read;
  calls.pwrite = Write;
  calls.pwritev = WriteParts;
  calls.copy_file_range = [](auto...) -> ssize_t { return errno = EXDEV, -1; };
  calls.mmap = Map;
  calls.lock = Lock;
  // The files may outlive the power, but that is not what orders are about.
  calls.fdatasync = calls.fsync = [](int) { return 0; };
#define PASS(name) \
  calls.name = [](auto... arguments) { return Pass(#name, g_calls.name, arguments...); };
  PASS(ftruncate)
  PASS(fallocate)
  PASS(unlink)
  PASS(rename)
#undef PASS
}

Schedule::~Schedule() { Zarn::GetFileSyscalls() = g_calls; }

// Two of one step count as one. A step that the last order did not come to ends a series.
bool Schedule::Next() {
  const auto drawn = [] { return 1 + g_random() % g_step; };
  if (g_limits.twice && g_first > 0 && g_second < g_step) {
    ++g_second;
  } else if (g_first < g_step) {
    ++g_first;
    g_second = g_limits.kills ? 1 : g_first;
  } else if (g_drawn++ < g_limits.random) {
    g_switches = {drawn(), drawn()};
    g_kill = g_limits.kills ? drawn() : kNever;
    return true;
  } else {
    return false;
  }
  const std::size_t other = g_limits.twice ? g_second : g_limits.kills ? drawn() : g_first;
  g_kill = g_limits.kills ? g_first : kNever;
  g_switches = {g_limits.kills ? other : g_first, other};
  return true;
}

std::string Schedule::Run(const std::vector<Process>& processes) {
  g_step = 0;
  g_last = nullptr;
  g_steps.clear();
  g_failure.clear();
  g_workers.clear();
  for (const Process& process : processes) {
    Worker* const worker = g_workers.emplace_back(new Worker{process}).get();
    worker->thread = std::thread([worker] {
      t_worker = worker;
      worker->process.body();
      if (!worker->isDone) Leave();
    });
    g_main.acquire();  // until it begins
  }
  g_isRunning = true;
  LetGo(FindOthers(true));
  g_main.acquire();
  g_isRunning = false;
  for (const auto& worker : g_workers) {
    worker->go.release();
    worker->thread.join();
  }
  return g_failure;
}

std::string Schedule::Describe() { return g_steps; }

void Schedule::Begin() {
  g_main.release();
  t_worker->go.acquire();
}

void Schedule::End() {
  if (t_worker->isDead) return;
  Leave();
  t_worker->go.acquire();
}

void Schedule::Step(const char* what) {
  if (IsRunning()) Enter(what, false);
}

bool Schedule::IsAlive() { return !t_worker->isDead; }
