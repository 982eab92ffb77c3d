#include "Cause.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "PathRules.h"

namespace Zarn {
namespace {

struct LastError {
  ZrError error;
  std::uint64_t pathNumber = 0;  // whose path the error has; 0: nobody's
};

alignas(LastError) thread_local std::byte t_bytes[sizeof(LastError)];
[[gnu::tls_model("initial-exec")]] constinit thread_local LastError* t_last = nullptr;

// What the thread does later finds an empty path.
extern "C" void GivePathBack(void*) { std::string().swap(t_last->error.path); }

pthread_key_t MakeKey() {
  pthread_key_t key;
  pthread_key_create(&key, GivePathBack);
  return key;
}

// By a thread-specific key, for a thread_local object with a destructor ends the process where
// memory is short.
LastError& GetLast() noexcept {
  if (t_last == nullptr) {
    static const pthread_key_t key = MakeKey();
    t_last = new (t_bytes) LastError;
    pthread_setspecific(key, t_bytes);
  }
  return *t_last;
}

ZrCause CauseOf(int systemError) {
  switch (systemError) {
    case ENOSPC:
      return ZrCause::kDiskFull;
    case EDQUOT:
    case EFBIG:
    case EOVERFLOW:
      return ZrCause::kSizeLimit;
    case EACCES:
    case EPERM:
      return ZrCause::kPermission;
    case EROFS:
      return ZrCause::kReadOnly;
    case EAGAIN:
    case EDEADLK:
    case ENOLCK:
    case ETXTBSY:
      return ZrCause::kLocked;
    case ENOENT:
    case ENOTDIR:
      return ZrCause::kNoFile;
    case EEXIST:
      return ZrCause::kExists;
    case EISDIR:
    case ENXIO:
      return ZrCause::kWrongKind;
    case ENAMETOOLONG:
      return ZrCause::kTooLong;
    case ELOOP:
      return ZrCause::kBadPath;
    case ENOMEM:
      return ZrCause::kNoMemory;
    case EMFILE:
    case ENFILE:
      return ZrCause::kTooManyFiles;
    case EOPNOTSUPP:
    case ENOSYS:
    case EXDEV:
      return ZrCause::kNotSupported;
    case EIO:
    case ENODEV:
    case ESTALE:
    case ETIMEDOUT:
      return ZrCause::kInputOutput;
    default:
      return ZrCause::kOther;
  }
}

// Of a failure of which nothing was noted.
ZrCause UsualCauseOf(unsigned int result) {
  switch (result) {
    case ZrResult::kWrongFile:
      return ZrCause::kWrongFormat;
    case ZrResult::kNotFound:
      return ZrCause::kNoTile;
    case ZrResult::kNotOpen:
      return ZrCause::kNotOpen;
    case ZrResult::kUnknownKind:
      return ZrCause::kWrongKind;
    default:
      return ZrCause::kOther;
  }
}

constexpr const char* kCauseTexts[] = {
    "nothing failed",
    "it failed for a reason that is not known",
    "the disk is full",
    "a limit on the size of files is reached",
    "permission is denied",
    "it is open for reading only",
    "it cannot be locked",
    "it is in use",
    "no file is open",
    "there is no such file",
    "there is no such tile",
    "it exists already",
    "another file has taken its place",
    "it is no compact file, or the password is wrong",
    "it is a file of another kind",
    "a compaction was cut short and cannot be finished",
    "its header is damaged",
    "an entry of its index is damaged",
    "a record is damaged",
    "a cell or a number is out of range",
    "the data or the name is empty",
    "the name is too long",
    "the path can name no file",
    "the name cannot be converted",
    "the file to be stored cannot be read",
    "it can hold no more",
    "it was cancelled",
    "memory is short",
    "too many files are open",
    "the file system cannot do that",
    "input or output failed",
};

}  // namespace

const ZrError& ZrLastError() noexcept { return GetLast().error; }

const char* ZrResultText(unsigned int result) noexcept {
  switch (result) {
    case ZrResult::kOk:
      return "it succeeded";
    case ZrResult::kNotUsable:
      return "the file could not be taken into use";
    case ZrResult::kNotCreated:
      return "it could not be created";
    case ZrResult::kWrongFile:
      return "it is no compact file of this kind, or the password is wrong";
    case ZrResult::kNotFound:
      return "there is no such file or tile";
    case ZrResult::kNotOpen:
      return "the file could not be opened, or none is open";
    case ZrResult::kUnknownKind:
      return "it is a compact file of an unknown kind";
    case ZrResult::kReadFailure:
      return "it could not be read, or is damaged";
    case ZrResult::kWriteFailure:
      return "it could not be written, or not as asked";
    default:
      return "the result is not known";
  }
}

const char* ZrCauseText(ZrCause cause) noexcept {
  const auto number = static_cast<std::size_t>(cause);
  static_assert(std::size(kCauseTexts) == static_cast<std::size_t>(ZrCause::kInputOutput) + 1);
  return kCauseTexts[number < std::size(kCauseTexts) ? number : 1];
}

std::string ZrErrorText(const ZrError& error) {
  if (error.result == ZrResult::kOk) return "no error";
  std::string text = "cannot ";
  text += error.action;
  text += ' ';
  text += error.path.empty() ? "a file" : error.path;
  text += ": ";
  text += error.cause == ZrCause::kOther && error.systemError == 0 ? ZrResultText(error.result)
                                                                   : ZrCauseText(error.cause);
  if (error.systemError == 0) return text;
  const char* const system = ::strerrordesc_np(error.systemError);
  return text + " (" + (system != nullptr ? system : std::to_string(error.systemError)) + ")";
}

namespace Io {

constinit thread_local ZrFailureNote* t_note = nullptr;
constinit thread_local unsigned int PublicCall::t_depth = 0;

void PublicCall::Report(unsigned int result) const noexcept try {
  constexpr std::uint64_t kNoNumber = 0;
  const bool hasPath = m_path != nullptr && !m_path->IsEmpty();
  SetLastError(m_action, result, kNoNumber);
  SetLastPath(hasPath ? Format::CompletePath(*m_path) : PelmUnicodeString(), kNoNumber);
} catch (const std::bad_alloc&) {
}

bool SetLastError(const char* action, unsigned int result, std::uint64_t pathNumber) noexcept {
  const ZrFailureNote note = *t_note;
  LastError& last = GetLast();
  last.error.result = result;
  last.error.systemError = note.systemError;
  last.error.action = action;
  last.error.cause = note.reason != 0        ? static_cast<ZrCause>(note.reason)
                     : note.systemError != 0 ? CauseOf(note.systemError)
                                             : UsualCauseOf(result);
  return pathNumber != 0 && pathNumber == last.pathNumber;
}

void SetLastPath(const PelmUnicodeString& path, std::uint64_t pathNumber) {
  LastError& last = GetLast();
  last.pathNumber = 0;
  last.error.path.clear();
  last.error.path = path.ToUtf8();
  last.pathNumber = pathNumber;
}

}  // namespace Io
}  // namespace Zarn
