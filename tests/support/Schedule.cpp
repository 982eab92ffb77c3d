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

// What a step does to the bytes of files, to locks, or to what processes have told each other.
// kLook reads, but nobody waits before it: all objects share a mutex meanwhile.
enum Kind { kRead, kLook, kWrite, kShare, kLock, kHear, kTell, kNothing };

struct Worker;
constexpr std::size_t kNone = SIZE_MAX;

struct Step {
  const char* what;
  Kind kind;
  off_t position = 0;
  std::size_t size = SIZE_MAX;  // that much means all
  bool mayBeLast = true;        // a kill can come before it
  const Worker* worker = nullptr;
  std::size_t choice = kNone;  // before which another one could have gone first
  std::size_t block = kNone;   // by which this one goes first since some steps
};

// Whether it can make a difference which one comes first.
bool DoConflict(const Step& a, const Step& b) {
  const auto field = [](Kind kind) { return kind <= kWrite ? 0 : kind <= kLock ? 1 : 2; };
  const auto changes = [](Kind kind) { return kind == kWrite || kind == kLock || kind == kTell; };
  const auto beginsBeforeEnd = [](const Step& step, const Step& other) {
    const bool isAll = step.size == SIZE_MAX || other.size == SIZE_MAX;
    return isAll || step.position < other.position + static_cast<off_t>(other.size);
  };
  return a.worker != b.worker && field(a.kind) == field(b.kind) &&
         (changes(a.kind) || changes(b.kind)) && beginsBeforeEnd(a, b) && beginsBeforeEnd(b, a);
}

struct Worker {
  const Schedule::Process* process = nullptr;
  bool isDone = true;
  bool hasEnded = false;
  bool isDead = false;
  bool isWaiting = false;  // for a lock, which it asked for when so many had been freed:
  std::size_t frees = 0;
  bool polls = false;          // it could go on without the lock
  struct flock refused = {};   // by its last call
  std::size_t choice = kNone;  // its last one
  std::vector<int> files;
  std::binary_semaphore go{0};
  std::thread thread;
};

thread_local Worker* t_worker = nullptr;
Schedule::Impl* g_impl = nullptr;
Zarn::FileSyscalls g_calls;  // the kernel's

}  // namespace

struct Schedule::Impl {
  using Workers = std::vector<Worker*>;
  // Who goes on. Options become wanted as it turns out that they can make a difference.
  struct Choice {
    enum State : char { kNotWanted, kWanted, kDone };
    Workers options;  // null: a kill
    std::vector<State> states;
    std::size_t taken = 0;
  };

  explicit Impl(Limits limits) : m_limits(std::move(limits)) {}
  void Run(const std::vector<Process>& processes);
  void Serve(Worker& worker);
  bool Enter(const Step& step);
  void Record(Worker& self, Step step);
  bool Wait(Worker& self, bool polls);
  void Leave(Worker& self);
  void Die(Worker& self);
  void Detach(const Worker& worker);
  Workers FindOthers(const Worker& self, bool polling) const;
  Workers FindNext(const Worker& self) const;
  Worker* Choose(const Workers& options, bool wantsAll);
  void WantWhatMatters();
  void Want(std::size_t choice, const Worker* first);
  void Fail(const char* why) {
    if (m_failure.empty()) m_failure = why;
  }

  const Limits m_limits;
  std::vector<std::unique_ptr<Worker>> m_workers;
  std::size_t m_count = 0;  // workers in use
  std::binary_semaphore m_main{0};
  bool m_isRunning = false;  // all have begun
  bool m_isOver = false;

  std::vector<Choice> m_choices;  // that lead to this order
  std::size_t m_next = 0;         // those that are made
  std::size_t m_orders = 0;
  bool m_isComplete = false;

  unsigned int m_preemptions = 0;
  unsigned int m_kills = 0;
  std::size_t m_frees = 0;      // of locks
  std::size_t m_block = kNone;  // the preemption since which the running one runs
  std::vector<Step> m_steps;
  std::string m_failure;
  std::map<void*, const Worker*> m_mappings;  // for writing, with those that made them; maybe gone
};

// The first option is what is done if nobody wants another one.
Worker* Schedule::Impl::Choose(const Workers& options, bool wantsAll) {
  if (options.size() == 1) return options[0];
  if (m_next == m_choices.size()) {
    const bool isWanted = wantsAll || !m_limits.leavesOut;
    m_choices.push_back({options, {}});
    for (const Worker* option : options)
      m_choices.back().states.push_back(isWanted || option == nullptr ? Choice::kWanted
                                                                      : Choice::kNotWanted);
    m_choices.back().states[0] = Choice::kDone;
  }
  const Choice& choice = m_choices[m_next++];
  if (choice.options == options) return options[choice.taken];
  Fail("The same order came out differently");
  return options[0];
}

// Of two steps between which it matters the second one could have come first, with what leads to
// it. Where its process had to wait, or the number of preemptions did not allow that, something
// else may lead there.
void Schedule::Impl::WantWhatMatters() {
  if (!m_limits.leavesOut) return;
  for (std::size_t later = 1; later < m_steps.size(); ++later)
    for (std::size_t earlier = 0; earlier < later; ++earlier)
      if (DoConflict(m_steps[earlier], m_steps[later])) {
        Want(m_steps[earlier].choice, m_steps[later].worker);
        Want(m_steps[earlier].block, m_steps[later].worker);
      }
}

void Schedule::Impl::Want(std::size_t choice, const Worker* first) {
  if (choice == kNone) return;
  auto& [options, states, taken] = m_choices[choice];
  const bool isThere = std::ranges::find(options, first) != options.end();
  for (std::size_t i = 0; i < options.size(); ++i)
    if (states[i] == Choice::kNotWanted && (!isThere || options[i] == first))
      states[i] = Choice::kWanted;
}

// Those beside `self` that do not wait for a lock; or those that wait and poll for it.
Schedule::Impl::Workers Schedule::Impl::FindOthers(const Worker& self, bool polling) const {
  Workers others;
  for (std::size_t i = 0; i < m_count; ++i) {
    Worker& other = *m_workers[i];
    const bool waits = other.isWaiting && other.frees == m_frees;
    if (&other != &self && !other.isDone && (polling ? waits && other.polls : !waits))
      others.push_back(&other);
  }
  return others;
}

// Those that can go on when `self` cannot.
Schedule::Impl::Workers Schedule::Impl::FindNext(const Worker& self) const {
  Workers next = FindOthers(self, false);
  return next.empty() ? FindOthers(self, true) : next;
}

void Schedule::Impl::Record(Worker& self, Step step) {
  step.worker = &self;
  step.choice = self.choice;
  step.block = m_block;
  m_steps.push_back(step);
}

// Before a step: whether it is made. Without effect and answer if it is not.
bool Schedule::Impl::Enter(const Step& step) {
  Worker& self = *t_worker;
  if (self.isDead) return false;
  if (step.kind != kShare && step.kind != kLock) self.refused = {};
  const auto mayDie = [&] {
    return m_kills < m_limits.kills && self.process->mayBeKilled && step.mayBeLast &&
           (step.kind == kWrite || step.kind == kLock);
  };
  Workers options = {&self};
  if (mayDie()) options.push_back(nullptr);
  if (m_preemptions < m_limits.preemptions)
    for (Worker* other : FindOthers(self, false))
      options.push_back(other);
  const std::size_t choice = options.size() > 1 ? m_next : kNone;
  Worker* next = Choose(options, false);
  if (next != nullptr && next != &self) {
    ++m_preemptions;
    m_block = choice;
    next->go.release();
    self.go.acquire();
    if (self.isDead) return false;
    // The one that went first could have let another one go on, so there is but one choice left.
    next = &self;
    if (mayDie()) next = Choose({&self, nullptr}, true);
  }
  self.choice = choice;
  if (next == nullptr) {
    Die(self);
    return false;
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
  self.isWaiting = true;
  self.polls = polls;
  self.frees = m_frees;
  const Workers others = FindNext(self);
  if (!others.empty()) {
    Worker* const next = Choose(others, true);
    m_block = kNone;
    next->go.release();
    self.go.acquire();
  }
  self.isWaiting = false;
  if (others.empty() && !polls) Fail("All wait for a lock");
  return !self.isDead && self.frees != m_frees;
}

void Schedule::Impl::Leave(Worker& self) {
  self.isDone = true;
  Workers others = FindNext(self);
  if (others.empty()) {
    for (std::size_t i = 0; i < m_count; ++i)
      if (!m_workers[i]->isDone) others.push_back(m_workers[i].get());
    if (!others.empty()) Fail("All wait for a lock");
    for (Worker* other : others)
      other->isDead = true;
  }
  m_block = kNone;
  if (others.empty())
    m_main.release();
  else
    Choose(others, true)->go.release();
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
  Record(self, {"is killed", kLock});
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
    if (m_isRunning)
      Leave(worker);
    else
      m_main.release();
  }
}

void Schedule::Impl::Run(const std::vector<Process>& processes) {
  m_next = m_preemptions = m_kills = 0;
  m_steps.clear();
  m_failure.clear();
  m_mappings.clear();
  m_count = processes.size();
  while (m_workers.size() < m_count) {
    m_workers.push_back(std::make_unique<Worker>());
    m_workers.back()->thread =
        std::thread([this, worker = m_workers.back().get()] { Serve(*worker); });
  }
  Workers all;
  for (std::size_t i = 0; i < m_count; ++i) {
    Worker& worker = *m_workers[i];
    worker.process = &processes[i];
    worker.isDone = worker.hasEnded = worker.isDead = worker.isWaiting = false;
    worker.choice = kNone;
    worker.files.clear();
    worker.go.release();
    m_main.acquire();  // until it begins
    all.push_back(&worker);
  }
  m_isRunning = true;
  m_block = kNone;
  Choose(all, true)->go.release();
  m_main.acquire();
  m_isRunning = false;
  for (Worker* worker : all)
    if (worker->hasEnded) {
      worker->go.release();
      m_main.acquire();
    }
  WantWhatMatters();
}

namespace {

bool IsRunning() { return t_worker != nullptr && g_impl->m_isRunning; }

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
  PASS(fstatfs, kNothing)
  PASS(madvise, kNothing)
  PASS(stat, kLook)
  PASS(statx, kLook)
  PASS(sync_file_range, kNothing)
  PASS(fchmod, kNothing)
  PASS(fchown, kNothing)
  PASS(getxattr, kNothing)
  PASS(fgetxattr, kNothing)
  PASS(fsetxattr, kNothing)
  PASS(fremovexattr, kNothing)
  PASS(mkdir, kNothing)
#undef PASS
}

}  // namespace

Schedule::Schedule(Limits limits) : m_impl(std::make_unique<Impl>(std::move(limits))) {
  if (std::exchange(g_impl, m_impl.get()) != nullptr) std::abort();
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
}

// The last choice of which not all is done that is wanted.
bool Schedule::Next() {
  Impl& impl = *m_impl;
  if (impl.m_orders == impl.m_limits.orders) return false;
  while (!impl.m_choices.empty()) {
    auto& [options, states, taken] = impl.m_choices.back();
    const auto wanted = std::ranges::find(states, Impl::Choice::kWanted);
    if (wanted != states.end()) {
      *wanted = Impl::Choice::kDone;
      taken = static_cast<std::size_t>(wanted - states.begin());
      break;
    }
    impl.m_choices.pop_back();
  }
  impl.m_isComplete = impl.m_orders > 0 && impl.m_choices.empty();
  impl.m_orders += !impl.m_isComplete;
  return !impl.m_isComplete;
}

void Schedule::Run(const std::vector<Process>& processes) { m_impl->Run(processes); }

void Schedule::Begin() {
  g_impl->m_main.release();
  t_worker->go.acquire();
}

void Schedule::End() {
  if (t_worker->isDead) return;
  t_worker->hasEnded = true;
  g_impl->Leave(*t_worker);
  t_worker->go.acquire();
}

void Schedule::Listen(const char* what) {
  if (IsRunning()) g_impl->Enter({what, kHear});
}

void Schedule::Tell(const char* what) {
  if (IsRunning() && !t_worker->isDead) g_impl->Record(*t_worker, {what, kTell});
}

bool Schedule::IsAlive() { return !t_worker->isDead; }

std::string Schedule::Describe() const {
  constexpr off_t kLocks = off_t{1} << 62;
  std::ostringstream text;
  const Step* last = nullptr;
  for (const Step& step : m_impl->m_steps) {
    const bool isSame = last != nullptr && last->worker == step.worker;
    text << (isSame ? ", " : "\n  "s + step.worker->process->name + ": ") << step.what;
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
