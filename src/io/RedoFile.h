#pragma once

#include <functional>

#include "PelmUnicodeString.h"
#include "RedoMarks.h"
#include "ZrFile64.h"
#include "ZrNewFile.h"

namespace Zarn::Io {

/// A file beside a container, in which the image is built that is to replace it; and the way to put
/// it there, byte by byte, so that a crash at any moment costs nothing.
///
///   Make       the file, empty. Up to Replace, destroying this object deletes it.
///   GetStream  write the image, from position 0 on.
///   Seal       the image is complete: a trailer says so, and both are on the disk.
///   Reserve    the container gets the room that it needs, while it is still whole.
///   Replace    a mark over the header; the container without its old tail and with the image's
///   body;
///              the header. With a sync after each. Then the image is deleted.
///
/// Whoever finds the mark puts the image in its place with FinishReplacement. All of them, and all
/// who make such a file, claim the container and then the image, so only one of them works at any
/// time, whether or not any other lock is in use: by the container, also where not all of them may
/// open each other's images; by the image, also where another file has taken the container's path.
/// When the header is back, the container may be changed by others at once.
class RedoFile {
 public:
  /// Bytes of the image that are in place.
  using Progress = std::function<void(std::uint64_t done)>;
  enum class Outcome {
    kInPlace,  ///< the container has the image's bytes
    kByName,   ///< it could not be written: the image has its path now, as another file
    kNot,      ///< neither; the image is left where it is, and the container as far as it came
  };

  /// For the container at `path`, open in `container`. What a killed run has left is replaced.
  /// False if somebody else is at work, if the file cannot be made, or if the container is mounted
  /// as a single file, where others would not find this one.
  bool Make(const PelmUnicodeString& path, ZrFile64& container);
  ZrFile64& GetStream() { return m_stream; }
  /// `sum` is that of all chunks from the one at `sumStart` on. Memory for the copies that follow
  /// is had here, too.
  bool Seal(Format::RedoChecksum sum, std::uint64_t sumStart);
  bool Reserve(ZrFile64& container) const;
  Outcome Replace(ZrFile64& container, const Progress& progress);

  /// Gives up the claims, and with them the stream.
  void LetGo();

  std::uint64_t GetImageLength() const { return m_trailer.imageLength; }
  /// Gives up the image of a replacement that has come to nothing, and deletes it if the container
  /// is whole.
  void Delete(ZrFile64& container);

 private:
  bool ClaimContainer(const ZrFile64& container);

  PelmUnicodeString m_path;           // of the image
  PelmUnicodeString m_containerPath;  // no symbolic link
  ZrFile64 m_container;               // has the claim; closed last
  ZrFile64 m_stream;
  ZrNewFile m_file{m_stream};
  ZrByteArray m_buffer;
  Format::RedoTrailer m_trailer;
};

/// For one who has found no header in the file at `path`: if it carries the mark, finishes its
/// replacement, or waits for whoever does. Whether it is worth another look, whatever came of it;
/// the path may lead to another file then. What has no image, or one that is not its own or
/// incomplete, is left alone, and so is the image.
bool FinishReplacement(const PelmUnicodeString& path);

}  // namespace Zarn::Io
