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

/// While it lives, nothing is noted that stays.
class KeptNote {
 public:
  KeptNote() noexcept : m_note(GetFailureNote()) {}
  ~KeptNote() { GetFailureNote() = m_note; }
  KeptNote(const KeptNote&) = delete;
  KeptNote& operator=(const KeptNote&) = delete;

 private:
  const ZrFailureNote m_note;
};

/// Around what the caller gave to be called: its operations are no part of the one under way.
class CallersTurn {
 public:
  CallersTurn() noexcept;
  ~CallersTurn();

 private:
  const KeptNote m_note;
  const unsigned int m_depth;
};

/// One public operation, also one that is a step of another one: then only that one reports.
class PublicCall {
 public:
  /// `action`: as in ZrError.
  explicit PublicCall(const char* action) noexcept : m_action(action) {
    if (t_depth++ == 0) ForgetFailure();
  }
  /// `path`: of the file, ".cf" is appended as it is elsewhere. It must outlive this object.
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
  /// The same for what is null, 0 or false on failure.
  template <typename Result>
  Result Answer(Result result, ZrResult::Code failure) const noexcept {
    if (!result && t_depth == 1) [[unlikely]]
      Report(failure);
    return result;
  }

 protected:
  static bool IsOutermost() { return t_depth == 1; }
  /// Makes what was noted the last error. Its path stays.
  void SetLastError(unsigned int result) const noexcept;
  /// Whether its path is the one that was set with this number, which is not 0.
  static bool HasLastPath(std::uint64_t number) noexcept;
  static void SetLastPath(const PelmUnicodeString& path, std::uint64_t number);

 private:
  friend class CallersTurn;

  [[gnu::cold, gnu::noinline]] void Report(unsigned int result) const noexcept;

  [[gnu::tls_model("initial-exec")]] static constinit thread_local unsigned int t_depth;

  const char* const m_action;
  const PelmUnicodeString* m_path = nullptr;  // null: none is known
};

}  // namespace Zarn::Io
