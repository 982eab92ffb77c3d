#pragma once

#include "Cause.h"
#include "ZrCompactFile.h"

namespace Zarn::Engine {

/// Tells the functions given to Verify what is found, and how far the check is. A function ends the
/// check by its answer false, and by an exception; from then on nothing is told or counted.
class Findings {
 public:
  using Finding = ZrCompactFile::ZrFinding;

  /// `count` receives the number of findings.
  Findings(const ZrCompactFile::VerifyReport& report, const ZrCompactFile::VerifyProgress& progress,
           unsigned long long& count)
      : m_report(report), m_progress(progress), m_count(count) {}

  /// The tile and version that findings are about.
  Finding& At() { return m_at; }

  void Report(Finding::Kind kind, std::uint64_t position, const char* message) {
    if (m_ended) return;
    ++m_count;
    m_at.kind = kind;
    m_at.position = position;
    m_at.message = message;
    Note(kind);
    m_note = GetFailureNote();
    const Io::KeptNote kept;
    Tell(m_report, m_at);
  }
  /// The same, for what makes it pointless to look further. False.
  bool Fail(Finding::Kind kind, std::uint64_t position, const char* message) {
    Report(kind, position, message);
    return false;
  }
  void TellProgress(std::uint64_t done, std::uint64_t all) { Tell(m_progress, done, all); }

  /// Makes the last finding why the check fails.
  void NoteLast() const { GetFailureNote() = m_note; }

  void End() { m_ended = true; }
  bool HaveEnded() const { return m_ended; }

 private:
  static void Note(Finding::Kind kind) {
    if (kind == Finding::kUnreadable)
      Io::FailUnlessBySystem(ZrCause::kInputOutput);
    else
      Io::Fail(kind == Finding::kHeader || kind == Finding::kIndex ? ZrCause::kDamagedHeader
               : kind == Finding::kEntry                           ? ZrCause::kDamagedEntry
                                                                   : ZrCause::kDamagedRecord);
  }
  template <typename Callback, typename... Arguments>
  void Tell(const Callback& callback, const Arguments&... arguments) {
    if (m_ended || !callback) return;
    try {
      m_ended = !callback(arguments...);
    } catch (...) {
      m_ended = true;
    }
  }

  const ZrCompactFile::VerifyReport& m_report;
  const ZrCompactFile::VerifyProgress& m_progress;
  unsigned long long& m_count;
  Finding m_at;
  ZrFailureNote m_note;  // of the last finding
  bool m_ended = false;
};

}  // namespace Zarn::Engine
