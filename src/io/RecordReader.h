#pragma once

#include "RecordHead.h"
#include "ZrByteArray.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// How large a record may be, before anything of it was read.
struct RecordGuess {
  std::uint64_t headSize = 0;
  std::uint64_t payloadSize = 0;  // 0: unknown, the head is read first
};

/// Reads records from a file: the head into memory of its own, the payload area into a buffer of
/// the caller's. A record that does not hold what it states, or that runs past the end of the
/// file, is not read.
///
/// With a right guess of both sizes a read is one system call. The guesses cost nothing but speed
/// when they are wrong.
class RecordReader {
 public:
  RecordReader(const ZrFileStream& file, std::uint32_t fileKind, bool swap)
      : m_file(file), m_fileKind(fileKind), m_swap(swap) {}

  RecordReader(const RecordReader&) = delete;
  RecordReader& operator=(const RecordReader&) = delete;

  /// Reads head and payload area. `payload` gets exactly the area, and its contents are
  /// unspecified on failure.
  bool Read(std::uint64_t position, RecordGuess guess, ZrByteArray& payload);
  /// Reads the head only.
  bool ReadHead(std::uint64_t position, std::uint64_t guessedSize);

  /// What was read last; valid after a success.
  const Format::RecordHead& Head() const { return m_head; }
  const unsigned char* HeadBytes() const { return m_bytes; }
  Format::VersionTable Versions() const { return m_head.Table(m_bytes, m_swap); }

 private:
  bool CompleteHead(std::uint64_t position, std::uint64_t available);
  bool ProvideHead(std::uint64_t size);
  Format::HeadParse Parse(std::uint64_t available);

  const ZrFileStream& m_file;
  std::uint32_t m_fileKind;
  bool m_swap;
  Format::RecordHead m_head;
  unsigned char m_small[1024];  // enough for most heads: a name of 256 bytes and 40 versions
  ZrByteArray m_large;
  unsigned char* m_bytes = m_small;
};

}  // namespace Zarn::Io
