#pragma once

#include "FileMap.h"
#include "IndexShape.h"
#include "RecordHead.h"
#include "ZrByteArray.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// How large a record may be, before anything of it was read.
struct RecordGuess {
  std::uint64_t headSize = 0;     // only the alignment of the payload in memory depends on it
  std::uint64_t payloadSize = 0;  // 0: unknown, the head is read first
};

enum class NameRead {
  kRead,
  kNone,    ///< no name lies there, or not wholly in its record and in the file
  kFailed,  ///< it could not be told: the file could not be read, or memory is short
};

/// Reads records of a file into buffers of the caller's. A record that does not hold what it
/// states, or that runs past the end of the file, is not read.
///
/// With a right guess of the size a read is one plain system call, and the payload is where it
/// stays: the head is read in front of it into the same buffer, and dropped there. A wrong guess
/// costs nothing but speed.
class RecordReader {
 public:
  /// With a map, records are copied out of that.
  RecordReader(const ZrFileStream& file, const Format::RecordShape& shape, FileMap* map = nullptr)
      : m_file(file), m_map(map), m_shape(shape) {}

  /// Reads a record; `buffer` gets exactly its payload area, and is unspecified on failure.
  bool Read(std::uint64_t position, RecordGuess guess, ZrByteArray& buffer);
  /// Gives the caller of a lookup the payload that Read has put into `buffer`. `data` gets the
  /// buffer itself and leaves its own memory there; of a buffer that is much larger than the
  /// payload it gets a copy, and the buffer is let go: callers may keep many tiles.
  void HandOver(ZrByteArray& buffer, ZrByteArray& data) const;
  /// Reads a head; `buffer` gets exactly that. `guessedLength` is the whole record's, as it was
  /// when it was last read or written; 0: unknown. If it is right, the file is not asked for its
  /// length.
  bool ReadHead(std::uint64_t position, std::uint64_t guessedLength, ZrByteArray& buffer);

  /// Reads the name in a record of a naming file, of which nothing else need be sound; `buffer`
  /// gets exactly its bytes.
  NameRead ReadName(std::uint64_t position, ZrByteArray& buffer);

  /// What was read last; valid after a success.
  const Format::RecordHead& Head() const { return m_head; }
  /// The name in it, in a naming file; valid as long as the version table.
  const unsigned char* NameBytes() const { return m_bytes + Format::kNameOffset; }
  /// Its version table; valid until the buffer is read into again or changed.
  Format::VersionTable Versions() const { return m_head.Table(m_bytes, m_shape.swap); }

 private:
  std::uint64_t ReadUpTo(std::uint64_t position, void* target, std::uint64_t size);
  bool CompleteHead(std::uint64_t position, std::uint64_t available, Format::HeadParse parse,
                    ZrByteArray& buffer);
  bool EndsInFile(std::uint64_t position) const;
  NameRead MissingName(std::uint64_t end) const;
  Format::HeadParse Parse(const unsigned char* bytes, std::uint64_t available);

  const ZrFileStream& m_file;
  FileMap* m_map;
  Format::RecordShape m_shape;
  Format::RecordHead m_head;
  const unsigned char* m_bytes = nullptr;  // the record, in the buffer
};

}  // namespace Zarn::Io
