#pragma once

#include <string>

#include "HxPlatformExport.h"
#include "ZrFileStream.h"

namespace Zarn {

/// A file in the making, which appears under its path whole or not at all.
///
/// Begin opens a stream on a private temporary file in the directory of the path; the owner writes
/// through the stream; Publish gives the file its name, in one step. Unless that succeeded, the
/// destructor closes the stream and removes the temporary file, and nothing else. A process that
/// is killed meanwhile leaves a file named ".hxcf-" and 16 hexadecimal digits, which may be
/// deleted.
class HX_PLATFORM_API ZrNewFile {
 public:
  enum class Outcome {
    kPublished,
    kExists,  ///< something has that path already; it was not touched
    kFailed,
  };

  /// `stream` must outlive this object.
  explicit ZrNewFile(ZrFileStream& stream) : m_stream(stream) {}
  ~ZrNewFile();
  ZrNewFile(const ZrNewFile&) = delete;
  ZrNewFile& operator=(const ZrNewFile&) = delete;

  /// Opens the stream, for reading and writing, on the temporary file.
  bool Begin(const PelmUnicodeString& path);
  /// Names the file; the stream stays open on it.
  Outcome Publish();
  /// The same, replacing what has the path: never kExists.
  Outcome Replace();

 private:
  void Abandon();

  ZrFileStream& m_stream;
  std::string m_path;
  std::string m_temporary;  // empty while there is none to remove
};

}  // namespace Zarn
