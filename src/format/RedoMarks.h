#pragma once

#include <array>
#include <optional>

#include "Header.h"

/// What a container carries while its bytes are replaced by those of a redo image, a file beside
/// it.
///
/// A trailer follows the redo image, which is complete if the trailer is there and its checksum is
/// right. Before the first byte of the container changes, a mark takes the place of its header:
/// from then on it is no container, and its contents are those of the redo image whose trailer has
/// the id of the mark. The true header comes last. The numbers in both are little-endian on every
/// host.
namespace Zarn::Format {

/// Tells one replacement from all others.
struct RedoId {
  std::uint64_t first = 0;
  std::uint64_t second = 0;

  bool operator==(const RedoId&) const = default;
};

/// The mark, as it is on disk: the first kHeaderFieldsSize bytes. `header` is that of the redo
/// image, as it is on disk; what follows is its.
HeaderImage EncodeRedoMark(const RedoId& id, const HeaderImage& header);
/// The id, if these bytes of a file are a mark. A header never is, however it is scrambled: its
/// first two bytes differ, and the mark's do not.
std::optional<RedoId> DecodeRedoMark(const HeaderImage& bytes);

inline constexpr std::size_t kRedoTrailerSize = 64;
using RedoTrailerImage = std::array<unsigned char, kRedoTrailerSize>;

struct RedoTrailer {
  RedoId id;
  std::uint64_t imageLength = 0;  // without the trailer
  std::uint64_t checksum = 0;     // of the redo image
};

RedoTrailerImage EncodeRedoTrailer(const RedoTrailer& trailer);
std::optional<RedoTrailer> DecodeRedoTrailer(const RedoTrailerImage& bytes);

/// Checksum of a file, chunk by chunk in any order; chunks of zeros, and so holes, may be left out.
/// It is fast, and notices bytes that were not written almost certainly, but not forgery.
class RedoChecksum {
 public:
  static constexpr std::size_t kChunk = 64 * 1024;  // all have this size, but the last of the file

  /// The first position at or after this one where a chunk begins.
  static constexpr std::uint64_t ChunkEnd(std::uint64_t position) {
    return (position + kChunk - 1) / kChunk * kChunk;
  }

  /// The bytes from `position` on, where a chunk begins, to the end of a chunk or of the file.
  void Add(std::uint64_t position, const unsigned char* bytes, std::uint64_t size);
  std::uint64_t Get() const { return m_sum; }

 private:
  void AddChunk(std::uint64_t number, const unsigned char* bytes, std::size_t size);

  std::uint64_t m_sum = 0;
};

}  // namespace Zarn::Format
