#pragma once

#include <mutex>

#include "HeaderIo.h"

namespace Zarn::Io {

/// The header of one open file: its fields in host order, and its bytes as they lie in the file.
///
/// Threads: the file's owner keeps readers from changes, except that any thread may take GetBytes
/// at any time.
class FileHeader {
 public:
  /// Reads and unscrambles the header. On failure the object stays as it was.
  HeaderRead Read(const ZrFileStream& file, const Format::XorString& xorString);
  /// Writes the header with another place of the index. On failure the old one is written back.
  bool MoveIndex(ZrFileStream& file, std::uint64_t indexOffset);
  /// Scrambles the header in the file by another password. It is read again first: the header in
  /// memory may be older than what another process has written.
  bool SetPassword(ZrFileStream& file, const Format::XorString& xorString);

  Format::HeaderView View() const { return Format::HeaderView(m_header); }
  /// The fields, in host order.
  const Format::HeaderImage& GetFields() const { return m_header; }
  /// The header bytes as they were in the file when it was last read or scrambled.
  Format::HeaderImage GetBytes() const;
  /// What scrambles the header bytes.
  const Format::XorString& GetXorString() const { return m_xorString; }
  /// The file is in the other byte order.
  bool IsSwapped() const { return m_bSwap; }

 private:
  void SetBytes();

  Format::HeaderImage m_header{};
  bool m_bSwap = false;
  Format::XorString m_xorString{};
  mutable std::mutex m_mutex;
  Format::HeaderImage m_bytes{};  // guarded by m_mutex
};

}  // namespace Zarn::Io
