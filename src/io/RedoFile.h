#pragma once

#include <unistd.h>

#include <functional>

#include "PelmUnicodeString.h"
#include "RedoMarks.h"
#include "ZrFile64.h"
#include "ZrNewFile.h"

namespace Zarn::Io {

/// The redo image: a file beside a container, which is built there and then put in the place of the
/// container, byte by byte, so that a crash at any moment costs nothing.
///
///   Make       creates the file, empty. Up to Replace, the destructor deletes it, but not
///              in a child that was forked meanwhile: it is the parent's.
///   GetStream  takes the new contents of the container, from position 0 on.
///   Seal       writes a trailer behind the contents, which are complete now, and syncs.
///   Reserve    takes the room that the container needs, while it is still whole.
///   Replace    writes a mark over the header, the body of the image in the place of the old one,
///              and the header, with a sync after each. Then it deletes the image.
///
/// FinishReplacement does the rest for a container that carries the mark. Both, and Make, claim the
/// container and then the redo image, so one process at a time works, with or without other locks.
/// The first claim also works where users may not open each other's images; the second one where
/// another file has taken the path of the container. Once the header is back, others may change the
/// container at once.
class RedoFile {
 public:
  /// Bytes of the image that are in place.
  using Progress = std::function<void(std::uint64_t done)>;
  enum class Outcome {
    kInPlace,  ///< the container has the bytes of the redo image
    kByName,   ///< it could not be written: the redo image has its path now, as another file
    kNot,      ///< neither; both files stay, the container as far as it was written
  };

  RedoFile() = default;
  ~RedoFile();
  RedoFile(const RedoFile&) = delete;
  RedoFile& operator=(const RedoFile&) = delete;

  /// Creates the file for the container at `path`, open in `container`, over what a killed run has
  /// left. False if another process is at work, if the file cannot be made, or if the container is
  /// mounted as a single file, where others would not find this one.
  bool Make(const PelmUnicodeString& path, ZrFile64& container);
  ZrFile64& GetStream() { return m_stream; }
  /// `sum` is that of all chunks from the one at `sumStart` on. Also allocates the memory for the
  /// copies that follow.
  bool Seal(Format::RedoChecksum sum, std::uint64_t sumStart);
  bool Reserve(ZrFile64& container) const;
  Outcome Replace(ZrFile64& container, const Progress& progress);

  /// Gives up the claims, and with them the stream.
  void LetGo();
  /// Length of the contents, without the trailer; valid after Seal.
  std::uint64_t GetImageLength() const { return m_trailer.imageLength; }
  /// After a replacement that failed: gives up the claims, and deletes the redo image if the
  /// container is whole.
  void Delete(ZrFile64& container);

 private:
  bool ClaimContainer(const ZrFile64& container);

  const pid_t m_process = ::getpid();
  PelmUnicodeString m_path;           // of the redo image
  PelmUnicodeString m_containerPath;  // no symbolic link
  ZrFile64 m_container;               // has the claim; closed last
  ZrFile64 m_stream;                  // of the redo image
  ZrNewFile m_file{m_stream};         // deletes the redo image up to Replace
  ZrByteArray m_buffer;               // for copies
  Format::RedoTrailer m_trailer;      // of the redo image, after Seal
};

/// For a caller that has found no header in the file at `path`: if the file carries the mark,
/// finishes its replacement, or waits for another process that does. True if the file is worth
/// another look; the path may lead to another file then. A marked file stays as it is, and so does
/// the redo image, if that is missing, incomplete or of another replacement.
bool FinishReplacement(const PelmUnicodeString& path);

}  // namespace Zarn::Io
