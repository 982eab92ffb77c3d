#include "support/Schedule.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <semaphore>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FileSyscalls.h"

using namespace std::string_literals;

namespace {

constexpr off_t kPage = 4096;
constexpr off_t kWord = 8;
constexpr std::size_t kEndless = 20'000;  // steps

// Of a step, what it does to the files or to the locks. kLook reads, but nobody waits before it:
// all objects share a mutex meanwhile.
enum Kind { kRead, kLook, kWrite, kShare, kLock, kOther };

struct Step {
  const char* what;
  Kind kind;
  off_t position = 0;
  std::size_t size = SIZE_MAX;  // that much means all
  bool mayBeLast = true;        // a kill can come before it
  const char* process = nullptr;
};

// Whether it matters which one comes first.
bool DoConflict(const Step& a, const Step& b) {
  const auto isWithLocks = [](const Step& step) {
    return step.kind == kShare || step.kind == kLock;
  };
  const auto changes = [](const Step& step) { return step.kind == kWrite || step.kind == kLock; };
  const auto beginsBefore = [](const Step& step, const Step& other) {
    return other.size == SIZE_MAX ||
           step.position < other.position + static_cast<off_t>(other.size);
  };
  if (a.kind == kOther || b.kind == kOther) return true;
  return isWithLocks(a) == isWithLocks(b) && (changes(a) || changes(b)) && beginsBefore(a, b) &&
         beginsBefore(b, a);
}

struct Worker {
  const Schedule::Process* process = nullptr;
  bool isDone = true;
  bool isDead = false;
  bool isWaiting = false;  // for a lock, which it asked for when so many had been freed:
  std::size_t frees = 0;
  bool polls = false;         // it could go on without the lock
  struct flock refused = {};  // by its last call
  std::vector<int> files;
  std::binary_semaphore go{0};
  std::thread thread;
};

thread_local Worker* t_worker = nullptr;
Schedule::Impl* g_impl = nullptr;
Zarn::FileSyscalls g_calls;  // the kernel's

}  // namespace

struct Schedule::Impl {
  struct Choice {
    std::size_t taken, count;
  };

  Impl(Limits limits) : m_limits(std::move(limits)) {}
  void Run(const std::vector<Process>& processes);
  void Serve(Worker& worker);
  bool Enter(const Step& step);
  void Record(const Worker& self, const Step& step);
  bool Wait(Worker& self, bool polls);
  void Leave(Worker& self);
  void Die(Worker& self);
  void Detach(const Worker& worker);
  std::vector<Worker*> FindOthers(const Worker& self, bool polling) const;
  std::vector<Worker*> FindNext(const Worker& self) const;
  std::size_t Choose(std::size_t count);
  void HandOver(Worker& from, Worker& to);
  bool IsRunning(const Worker* worker) const { return m_isRunning && worker != nullptr; }
  void Fail(const char* why) {
    if (m_failure.empty()) m_failure = why;
  }

  const Limits m_limits;
  std::vector<std::unique_ptr<Worker>> m_workers;
  std::size_t m_count = 0;  // workers in use
  std::binary_semaphore m_main{0};
  bool m_isRunning = false;  // all have begun
  bool m_isOver = false;

  // The order: the choices that lead to it, and how many are made.
  std::vector<Choice> m_choices;
  std::size_t m_next = 0;
  std::size_t m_orders = 0;
  bool m_isComplete = false;

  unsigned int m_preemptions = 0;
  unsigned int m_kills = 0;
  std::size_t m_frees = 0;
  // Somebody waits before this step, and nobody has done since what it matters to. So it could as
  // well have come first, and that is another order. Nobody else has to wait now; and until the end
  // if the one that goes on instead has to stop. (Not with mappings, whose use is no step.)
  std::optional<Step> m_owed;
  bool m_isVain = false;
  std::vector<Step> m_steps;
  std::string m_failure;
  std::map<void*, const Worker*> m_mappings;  // for writing, with those that made them; maybe gone
};

std::size_t Schedule::Impl::Choose(std::size_t count) {
  if (count == 1) return 0;
  if (m_next == m_choices.size()) m_choices.push_back({0, count});
  const Choice& choice = m_choices[m_next++];
  if (choice.count == count) return choice.taken;
  Fail("The same order came out differently");
  return 0;
}

// Those beside `self` that do not wait for a lock; or those that wait and poll for it.
std::vector<Worker*> Schedule::Impl::FindOthers(const Worker& self, bool polling) const {
  std::vector<Worker*> others;
  for (std::size_t i = 0; i < m_count; ++i) {
    Worker& other = *m_workers[i];
    const bool waits = other.isWaiting && other.frees == m_frees;
    if (&other != &self && !other.isDone && (polling ? waits && other.polls : !waits))
      others.push_back(&other);
  }
  return others;
}

// Those that can go on when `self` cannot.
std::vector<Worker*> Schedule::Impl::FindNext(const Worker& self) const {
  std::vector<Worker*> next = FindOthers(self, false);
  return next.empty() ? FindOthers(self, true) : next;
}

void Schedule::Impl::HandOver(Worker& from, Worker& to) {
  to.go.release();
  from.go.acquire();
}

void Schedule::Impl::Record(const Worker& self, const Step& step) {
  m_steps.push_back(step);
  m_steps.back().process = self.process->name;
  if (m_owed && DoConflict(*m_owed, step)) m_owed.reset();
}

// Before a step: whether it is made. Without effect and answer if it is not.
bool Schedule::Impl::Enter(const Step& step) {
  Worker& self = *t_worker;
  if (self.isDead) return false;
  if (step.kind != kShare && step.kind != kLock) self.refused = {};
  std::vector<Worker*> others;
  if (m_preemptions < m_limits.preemptions) others = FindOthers(self, false);
  for (;;) {
    const bool isFixed = m_owed || m_isVain;
    const bool mayDie = m_kills < m_limits.kills && self.process->mayBeKilled && step.mayBeLast &&
                        (step.kind == kWrite || step.kind == kLock);
    const std::size_t choice = isFixed ? 0 : Choose(1 + mayDie + others.size());
    if (choice == 0) break;
    if (choice == 1 && mayDie) {
      Die(self);
      return false;
    }
    ++m_preemptions;
    if (step.kind != kOther && m_limits.maps == 0) m_owed = step;
    HandOver(self, *others[choice - 1 - mayDie]);
    if (self.isDead) return false;
    others.clear();  // the one that went first could have let another one go on
  }
  Record(self, step);
  if (m_steps.size() > kEndless) {
    Fail("This does not end");
    self.isDead = true;
  }
  return !self.isDead;
}

// Until somebody has freed a lock; false if nobody will.
bool Schedule::Impl::Wait(Worker& self, bool polls) {
  m_isVain = m_isVain || m_owed;
  self.isWaiting = true;
  self.polls = polls;
  self.frees = m_frees;
  const std::vector<Worker*> others = FindNext(self);
  if (!others.empty()) HandOver(self, *others[Choose(m_isVain ? 1 : others.size())]);
  self.isWaiting = false;
  if (others.empty() && !polls) Fail("All wait for a lock");
  return !self.isDead && self.frees != m_frees;
}

void Schedule::Impl::Leave(Worker& self) {
  m_isVain = m_isVain || m_owed;
  self.isDone = true;
  self.process = nullptr;
  std::vector<Worker*> others = FindNext(self);
  const bool areStuck = others.empty();
  for (std::size_t i = 0; i < m_count && areStuck; ++i)
    if (!m_workers[i]->isDone) others.push_back(m_workers[i].get());
  if (others.empty()) {
    m_main.release();
    return;
  }
  if (areStuck) {
    Fail("All wait for a lock");
    for (Worker* other : others)
      other->isDead = true;
  }
  others[areStuck || m_isVain ? 0 : Choose(others.size())]->go.release();
}

// Gives the mappings in which the worker could change a file memory of their own, with what is
// there.
void Schedule::Impl::Detach(const Worker& worker) {
  std::ifstream all("/proc/self/maps");
  for (std::string line; std::getline(all, line);) {
    std::uintptr_t begin, end;
    char mode[5];
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &begin, &end, mode) != 3)
      continue;
    void* const bytes = reinterpret_cast<void*>(begin);
    const auto found = m_mappings.find(bytes);
    if (found == m_mappings.end() || found->second != &worker || mode != "rw-s"s) continue;
    const std::string copy(static_cast<const char*>(bytes), end - begin);
    ::mmap(bytes, copy.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
           0);
    std::memcpy(bytes, copy.data(), copy.size());
  }
}

// The kernel closes its files and frees its locks.
void Schedule::Impl::Die(Worker& self) {
  ++m_kills;
  Record(self, {"is killed", kOther});
  self.isDead = true;
  ++m_frees;
  const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : self.files)
    ::dup3(nothing, fd, O_CLOEXEC);
  ::close(nothing);
  if (!m_mappings.empty()) Detach(self);
}

void Schedule::Impl::Serve(Worker& worker) {
  t_worker = &worker;
  for (;;) {
    worker.go.acquire();
    if (m_isOver) return;
    worker.process->body();
    if (!m_isRunning) std::abort();  // no Begin
    Leave(worker);
  }
}

void Schedule::Impl::Run(const std::vector<Process>& processes) {
  m_next = m_preemptions = m_kills = 0;
  m_owed.reset();
  m_isVain = false;
  m_steps.clear();
  m_failure.clear();
  m_mappings.clear();
  m_count = processes.size();
  while (m_workers.size() < m_count) {
    m_workers.push_back(std::make_unique<Worker>());
    m_workers.back()->thread =
        std::thread([this, worker = m_workers.back().get()] { Serve(*worker); });
  }
  for (std::size_t i = 0; i < m_count; ++i) {
    Worker& worker = *m_workers[i];
    worker.process = &processes[i];
    worker.isDone = worker.isDead = worker.isWaiting = false;
    worker.files.clear();
    worker.go.release();
    m_main.acquire();  // until it begins
  }
  m_isRunning = true;
  m_workers[Choose(m_count)]->go.release();
  m_main.acquire();
  m_isRunning = false;
}

namespace {

bool IsRunning() { return g_impl->IsRunning(t_worker); }

bool Enter(const Step& step) { return !IsRunning() || g_impl->Enter(step); }

template <typename Result>
Result Refuse() {
  errno = EIO;
  return (Result)-1;  // of any type: a number, or MAP_FAILED
}

template <typename Call, typename... Arguments>
auto Pass(const char* what, Kind kind, Call call, Arguments... arguments) {
  using Result = decltype(call(arguments...));
  if (!IsRunning()) return call(arguments...);
  if (t_worker->isDead) return Refuse<Result>();
  if (kind == kLook) g_impl->Record(*t_worker, {what, kind});
  if (kind == kWrite || kind == kRead) {
    if (!g_impl->Enter({what, kind})) return Refuse<Result>();
  }
  return call(arguments...);
}

// Where to divide a transfer that has come to `position`: few words are moved word by word, as they
// lie in the file, and others in two parts. The end if it is not divided any more.
off_t FindCut(Kind kind, off_t begin, off_t position, off_t end) {
  constexpr off_t kFewWords = 4 * kWord;
  const auto isInside = [&](off_t cut) { return position < cut && cut < end; };
  const off_t word = (position / kWord + 1) * kWord, page = (position / kPage + 1) * kPage;
  if (end - begin <= kFewWords) return std::min(word, end);
  if (kind == kWrite && isInside(page)) return page;
  if (position != begin) return end;
  const auto& cuts = g_impl->m_limits.cuts;
  const auto wanted = std::ranges::find_if(cuts, isInside);
  return wanted != cuts.end() ? *wanted : (begin + end) / 2 / kWord * kWord;
}

// `move(from, size)` moves a part.
template <typename Move>
ssize_t Transfer(const char* what, Kind kind, off_t begin, std::size_t size, Move move) {
  if (!IsRunning()) return move(0, size);
  const off_t end = begin + static_cast<off_t>(size);
  ssize_t done = 0;
  for (off_t position = begin; position < end; position = begin + done) {
    const off_t cut = FindCut(kind, begin, position, end);
    const auto part = static_cast<std::size_t>(cut - position);
    const bool mayBeLast = position == begin || position % kPage == 0;
    if (!g_impl->Enter({what, kind, position, part, mayBeLast})) return Refuse<ssize_t>();
    const ssize_t moved = move(static_cast<std::size_t>(done), part);
    if (moved < 0) return done == 0 ? moved : done;
    done += moved;
    if (moved < static_cast<ssize_t>(part)) break;
  }
  return done;
}

ssize_t Read(int fd, void* bytes, std::size_t size, off_t position) {
  return Transfer("pread", kRead, position, size, [&](std::size_t from, std::size_t count) {
    const auto at = position + static_cast<off_t>(from);
    return g_calls.pread(fd, static_cast<char*>(bytes) + from, count, at);
  });
}

ssize_t Write(int fd, const void* bytes, std::size_t size, off_t position) {
  return Transfer("pwrite", kWrite, position, size, [&](std::size_t from, std::size_t count) {
    const auto at = position + static_cast<off_t>(from);
    return g_calls.pwrite(fd, static_cast<const char*>(bytes) + from, count, at);
  });
}

ssize_t WriteParts(int fd, const iovec* parts, int count, off_t position) {
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  return Write(fd, bytes.data(), bytes.size(), position);
}

ssize_t Copy(int source, off_t* from, int target, off_t* to, std::size_t size, unsigned int flags) {
  return Transfer("copy_file_range", kWrite, *to, size, [&](std::size_t, std::size_t count) {
    return g_calls.copy_file_range(source, from, target, to, count, flags);
  });
}

int Open(const char* path, int flags, mode_t mode) {
  if (IsRunning() && t_worker->isDead) return Refuse<int>();
  const int fd = g_calls.open(path, flags, mode);
  if (fd >= 0 && t_worker != nullptr) t_worker->files.push_back(fd);
  return fd;
}

int Close(int fd) {
  if (t_worker != nullptr) std::erase(t_worker->files, fd);
  ++g_impl->m_frees;
  return g_calls.close(fd);
}

// What a process stores into a mapping takes no call, so it must not reach the file from its death
// on.
void* Map(void* address, std::size_t size, int protection, int flags, int fd, off_t position) {
  if (size > g_impl->m_limits.maps) {
    errno = ENODEV;
    return MAP_FAILED;
  }
  void* const bytes = g_calls.mmap(address, size, protection, flags, fd, position);
  if (bytes != MAP_FAILED && (protection & PROT_WRITE) != 0) g_impl->m_mappings[bytes] = t_worker;
  return bytes;
}

bool AreEqual(const struct flock& a, const struct flock& b) {
  return a.l_type == b.l_type && a.l_start == b.l_start && a.l_len == b.l_len;
}

// One that polls for a lock is told once that it cannot have it. If it asks again at once, it waits
// like one that has to.
int Lock(int fd, int command, struct flock* lock) {
  if (!IsRunning()) return g_calls.lock(fd, command, lock);
  const bool frees = lock->l_type == F_UNLCK;
  const bool asks = command == F_OFD_GETLK, shares = lock->l_type == F_RDLCK;
  const char* what = asks     ? "asks for a lock"
                     : frees  ? "unlocks"
                     : shares ? "locks shared"
                              : "locks";
  const auto size = static_cast<std::size_t>(lock->l_len);
  const Kind kind = asks || shares ? kShare : kLock;
  if (!g_impl->Enter({what, kind, lock->l_start, size, frees})) return Refuse<int>();
  if (asks) return g_calls.lock(fd, command, lock);
  Worker& self = *t_worker;
  const bool polls = command == F_OFD_SETLK;
  for (;;) {
    struct flock request = *lock;
    const int result = g_calls.lock(fd, F_OFD_SETLK, &request);
    if (frees) ++g_impl->m_frees;
    if (result == 0 || errno != EAGAIN) {
      self.refused = {};
      return result;
    }
    const bool isFirst = polls && !AreEqual(self.refused, request);
    self.refused = request;
    if (!isFirst && g_impl->Wait(self, polls)) continue;
    if (self.isDead || !polls) return Refuse<int>();
    errno = EAGAIN;
    return -1;
  }
}

// The files may outlive the power, but that is not what orders are about.
int Sync(int) { return IsRunning() && t_worker->isDead ? Refuse<int>() : 0; }

void Install(Zarn::FileSyscalls& calls) {
  calls.open = Open;
  calls.close = Close;
  calls.pread = Read;
  calls.pwrite = Write;
  calls.pwritev = WriteParts;
  calls.copy_file_range = Copy;
  calls.mmap = Map;
  calls.lock = Lock;
  calls.fdatasync = calls.fsync = Sync;
#define PASS(name, kind) \
  calls.name = [](auto... arguments) { return Pass(#name, kind, g_calls.name, arguments...); };
  PASS(lseek, kRead)
  PASS(ftruncate, kWrite)
  PASS(fallocate, kWrite)
  PASS(unlink, kWrite)
  PASS(link, kWrite)
  PASS(rename, kWrite)
  PASS(renameNoReplace, kWrite)
  PASS(renameExchange, kWrite)
  PASS(fstat, kLook)
  PASS(stat, kLook)
  PASS(statx, kLook)
  PASS(sync_file_range, kOther)
  PASS(fchmod, kOther)
  PASS(fchown, kOther)
  PASS(getxattr, kOther)
  PASS(fgetxattr, kOther)
  PASS(fsetxattr, kOther)
  PASS(fremovexattr, kOther)
  PASS(mkdir, kOther)
#undef PASS
}

}  // namespace

Schedule::Schedule(Limits limits) : m_impl(new Impl(std::move(limits))) {
  if (std::exchange(g_impl, m_impl) != nullptr) std::abort();
  g_calls = Zarn::GetFileSyscalls();
  Install(Zarn::GetFileSyscalls());
}

Schedule::~Schedule() {
  m_impl->m_isOver = true;
  for (const auto& worker : m_impl->m_workers) {
    worker->go.release();
    worker->thread.join();
  }
  Zarn::GetFileSyscalls() = g_calls;
  g_impl = nullptr;
  delete m_impl;
}

bool Schedule::Next() {
  Impl& impl = *m_impl;
  auto& choices = impl.m_choices;
  while (!choices.empty() && choices.back().taken + 1 == choices.back().count)
    choices.pop_back();
  impl.m_isComplete = impl.m_orders > 0 && choices.empty();
  if (impl.m_isComplete || impl.m_orders == impl.m_limits.orders) return false;
  if (!choices.empty()) ++choices.back().taken;
  ++impl.m_orders;
  return true;
}

void Schedule::Run(const std::vector<Process>& processes) { m_impl->Run(processes); }

void Schedule::Begin() {
  g_impl->m_main.release();
  t_worker->go.acquire();
}

bool Schedule::IsAlive() { return !t_worker->isDead; }

bool Schedule::Pause(const char* what) { return Enter({what, kOther}); }

// One line for each time that another one goes on.
std::string Schedule::Describe() const {
  constexpr off_t kLocks = off_t{1} << 62;
  std::ostringstream text;
  const Step* last = nullptr;
  for (const Step& step : m_impl->m_steps) {
    const bool isSame = last != nullptr && last->process == step.process;
    text << (isSame ? ", " : "\n  "s + step.process + ": ") << step.what;
    if (step.size != SIZE_MAX)
      text << ' ' << (step.position >= kLocks - 1 ? step.position - kLocks : step.position) << '+'
           << step.size;
    last = &step;
  }
  return text.str();
}

const std::string& Schedule::GetFailure() const { return m_impl->m_failure; }

std::size_t Schedule::CountOrders() const { return m_impl->m_orders; }

bool Schedule::IsComplete() const { return m_impl->m_isComplete; }
