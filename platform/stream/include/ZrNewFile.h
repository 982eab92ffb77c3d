#pragma once

#include <string>

#include "HxPlatformExport.h"
#include "ZrFileStream.h"

namespace Zarn {

/// A file in the making, which appears under its path whole or not at all.
///
/// Begin opens a stream on a private temporary file in the directory of the path; the owner writes
/// through the stream; Publish or Replace gives the file its name, in one step; Commit makes that
/// final. Without Commit the destructor closes the stream and undoes everything: the file is gone,
/// and what it has replaced is back. A process that is killed meanwhile leaves a file named
/// ".hxcf-" and 16 hexadecimal digits, which may be deleted.
class HX_PLATFORM_API ZrNewFile {
 public:
  /// Results of giving the file its name.
  enum class Outcome {
    kPublished,  ///< the file has its path
    kExists,     ///< something has that path already; it was not touched
    kFailed,     ///< the system has reported an error
  };

  /// `stream` must outlive this object.
  explicit ZrNewFile(ZrFileStream& stream) : m_stream(stream) {}
  ~ZrNewFile() { Undo(); }
  ZrNewFile(const ZrNewFile&) = delete;
  ZrNewFile& operator=(const ZrNewFile&) = delete;

  /// Opens the stream, for reading and writing, on the temporary file, with these permissions less
  /// the process's umask.
  bool Begin(const PelmUnicodeString& path, unsigned int permissions = 0666);
  /// The path of the temporary file.
  PelmUnicodeString GetTemporaryPath() const { return PelmUnicodeString::FromUtf8(m_temporary); }
  /// Names the file; the stream stays open on it.
  Outcome Publish();
  /// The same, replacing a file that has the path: never kExists. Before it has the path, the new
  /// file gets owner and permissions of the one that it replaces, as ZrFileStream::TakeOwner does.
  Outcome Replace();
  /// Keeps the file, and deletes what it has replaced.
  void Commit();

 private:
  enum class State { kNone, kBegun, kPublished, kExchanged, kReplaced };

  void Undo();
  bool Make(const std::string& temporary, unsigned int permissions);

  ZrFileStream& m_stream;
  PelmUnicodeString m_path;
  std::string m_nativePath;
  std::string m_temporary;  // names the new file, or while exchanged what it has replaced
  State m_state = State::kNone;
};

}  // namespace Zarn
