#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "ZrError.h"
#include "hx/export.h"

namespace hx {

using Cause = Zarn::ZrCause;  ///< why an operation failed

/// The one class of exceptions of this library. Beside it only std::bad_alloc is thrown.
class HX_TILES_API Error : public std::runtime_error {
 public:
  /// With a sentence made of it.
  explicit Error(const Zarn::ZrError& error);

  /// A ZrResult of the call that failed.
  unsigned int code() const noexcept { return m_error->result; }
  Cause cause() const noexcept { return m_error->cause; }
  /// errno of the system call that failed; 0: none did.
  int system_error() const noexcept { return m_error->systemError; }
  /// The file, in UTF-8.
  const std::string& path() const noexcept { return m_error->path; }

 private:
  std::shared_ptr<const Zarn::ZrError> m_error;  // shared, for a copy must not throw
};

/// What the calls return that throw nothing.
class HX_TILES_API Status {
 public:
  /// Success.
  constexpr Status() noexcept = default;
  /// What ZrLastError tells, for a call that has just failed.
  static Status last() noexcept;
  /// A failure of this library's own.
  constexpr Status(unsigned int code, Cause cause, int systemError = 0) noexcept
      : m_code(code), m_cause(cause), m_systemError(systemError) {}

  /// Whether the call has succeeded.
  constexpr bool ok() const noexcept { return m_code == Zarn::ZrResult::kOk; }
  constexpr explicit operator bool() const noexcept { return ok(); }
  /// Whether there is no such tile or file.
  constexpr bool missing() const noexcept {
    return m_cause == Cause::kNoTile || m_cause == Cause::kNoFile;
  }
  /// As in Error.
  constexpr unsigned int code() const noexcept { return m_code; }
  constexpr Cause cause() const noexcept { return m_cause; }
  constexpr int system_error() const noexcept { return m_systemError; }
  /// The cause in words: "the disk is full".
  const char* text() const noexcept { return Zarn::ZrCauseText(m_cause); }

 private:
  unsigned int m_code = Zarn::ZrResult::kOk;
  Cause m_cause = Cause::kNone;
  int m_systemError = 0;
};

}  // namespace hx
