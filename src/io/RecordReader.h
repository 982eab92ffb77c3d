#pragma once

#include "FileMap.h"
#include "IndexShape.h"
#include "RecordHead.h"
#include "ZrByteArray.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// How large a record may be, for its first read.
struct RecordHint {
  std::uint64_t headSize = 0;     // only the alignment of the payload in memory depends on it
  std::uint64_t payloadSize = 0;  // 0: no hint, the reader begins with the head
};

enum class NameRead {
  kRead,
  kNone,    ///< no name lies there, or not wholly in its record and in the file
  kFailed,  ///< it could not be told: the file could not be read, or memory is short
};

/// Reads records of a file into buffers of the caller's. A record that does not hold what it
/// states, or that runs past the end of the file, is not read.
///
/// With a right hint of the size, one plain system call reads head and payload into the buffer; the
/// buffer then drops the head, and the payload does not move. A wrong hint costs nothing but speed.
class RecordReader {
 public:
  /// With a map, copies records out of the map.
  RecordReader(const ZrFileStream& file, const Format::RecordShape& shape, FileMap* map = nullptr)
      : m_file(file), m_map(map), m_shape(shape) {}

  /// Reads a record; `buffer` gets exactly its payload area, and is unspecified on failure.
  bool Read(std::uint64_t position, RecordHint hint, ZrByteArray& buffer);
  /// Gives the caller of a lookup the payload that Read has put into `buffer`: `data` and `buffer`
  /// exchange their memory. If the buffer is much larger than the payload, `data` gets a copy and
  /// the buffer is freed: callers may keep many tiles.
  void HandOver(ZrByteArray& buffer, ZrByteArray& data) const;
  /// Reads a head; `buffer` gets exactly that. `lengthHint` is the length of the whole record when
  /// it was last read or written; 0: none. A right hint saves asking for the length of the file.
  bool ReadHead(std::uint64_t position, std::uint64_t lengthHint, ZrByteArray& buffer);

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
