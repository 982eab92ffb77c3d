#pragma once

#include <new>

#include "PelmUnicodeString.h"
#include "ZrError.h"
#include "ZrFailure.h"

/// Why operations fail. The place that knows notes the cause in the calling thread's note, the file
/// classes their errors of the system; the public operation makes the last note the last error.
namespace Zarn::Io {

/// Notes the cause. Answers false, as the caller does, or what is to be answered.
inline bool Fail(ZrCause cause) noexcept {
  GetFailureNote() = {0, static_cast<std::uint32_t>(cause)};
  return false;
}
template <typename Answer>
Answer Fail(ZrCause cause, Answer answer) noexcept {
  Fail(cause);
  return answer;
}

/// The same for what is not as it should be: if the system has failed, that is why.
inline bool FailUnlessBySystem(ZrCause cause) noexcept {
  return GetFailureNote().systemError == 0 && Fail(cause);
}
template <typename Answer>
Answer FailUnlessBySystem(ZrCause cause, Answer answer) noexcept {
  FailUnlessBySystem(cause);
  return answer;
}

/// Makes this the cause of what the system has noted.
inline bool FailTogether(ZrCause cause) noexcept {
  GetFailureNote().reason = static_cast<std::uint32_t>(cause);
  return false;
}

/// What was noted does not count: another attempt follows.
inline void ForgetFailure() noexcept { GetFailureNote() = {}; }

/// While it lives, nothing is noted that stays: around what tidies up, and around functions of the
/// caller's, whose operations are no part of the one under way.
class KeptNote {
 public:
  KeptNote() noexcept : m_note(GetFailureNote()) {}
  ~KeptNote() { GetFailureNote() = m_note; }
  KeptNote(const KeptNote&) = delete;
  KeptNote& operator=(const KeptNote&) = delete;

 private:
  const ZrFailureNote m_note;
};

/// The note of the calling thread, found without a call; null before its first operation.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local ZrFailureNote* t_note;

/// A public operation begins: nothing has failed yet.
inline void BeginOperation() noexcept {
  if (t_note == nullptr) [[unlikely]]
    t_note = &GetFailureNote();
  *t_note = {};
}
/// It has failed: makes what was noted the last error. Its path stays: true if that is the one of
/// this number, which is not 0. `action`: as in ZrError.
bool SetLastError(const char* action, unsigned int result, std::uint64_t pathNumber) noexcept;
void SetLastPath(const PelmUnicodeString& path, std::uint64_t pathNumber);

/// One public operation of an object that knows its file by a path. It may be a step of another
/// one; then only that one reports.
class PublicCall {
 public:
  explicit PublicCall(const char* action) noexcept : m_action(action) {
    if (t_depth++ == 0) BeginOperation();
  }
  /// `path`: ".cf" is appended as it is elsewhere. It must outlive this object.
  PublicCall(const char* action, const PelmUnicodeString& path) noexcept : PublicCall(action) {
    m_path = &path;
  }
  ~PublicCall() { --t_depth; }
  PublicCall(const PublicCall&) = delete;
  PublicCall& operator=(const PublicCall&) = delete;

  /// Passes the result on. A failure becomes the last error.
  unsigned int Answer(unsigned int result) const noexcept {
    if (result != ZrResult::kOk && t_depth == 1) [[unlikely]]
      Report(result);
    return result;
  }
  /// The same for what is 0 or false on failure.
  template <typename Result>
  Result Answer(Result result, ZrResult::Code failure) const noexcept {
    if (!result && t_depth == 1) [[unlikely]]
      Report(failure);
    return result;
  }

 private:
  [[gnu::cold, gnu::noinline]] void Report(unsigned int result) const noexcept;

  [[gnu::tls_model("initial-exec")]] static constinit thread_local unsigned int t_depth;

  const char* const m_action;
  const PelmUnicodeString* m_path = nullptr;  // null: none is known
};

}  // namespace Zarn::Io
