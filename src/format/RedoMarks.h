#pragma once

#include <array>
#include <optional>

#include "Header.h"

/// What a container carries while it is replaced, byte by byte, by an image in a file beside it.
///
/// The image is followed by a trailer, and is complete if that is there and its checksum is right.
/// Before the first byte of the container changes, a mark takes the place of its header: from then
/// on it is no container, and the image whose trailer has the mark's id is to be put in its place.
/// The true header comes last. The numbers in both are little-endian on every host.
namespace Zarn::Format {

/// Tells one replacement from all others.
struct RedoId {
  std::uint64_t first = 0;
  std::uint64_t second = 0;

  bool operator==(const RedoId&) const = default;
};

/// The mark, as it is on disk. `header` is the image's, as it is on disk: its second half is
/// reserved, so the mark has it already.
HeaderImage EncodeRedoMark(const RedoId& id, const HeaderImage& header);
/// The id, if these bytes of a file are a mark. A header never is, however it is scrambled: its
/// first two bytes differ, and the mark's do not.
std::optional<RedoId> DecodeRedoMark(const HeaderImage& bytes);

inline constexpr std::size_t kRedoTrailerSize = 64;
using RedoTrailerImage = std::array<unsigned char, kRedoTrailerSize>;

struct RedoTrailer {
  RedoId id;
  std::uint64_t imageLength = 0;  // without the trailer
  std::uint64_t checksum = 0;     // of the image
};

RedoTrailerImage EncodeRedoTrailer(const RedoTrailer& trailer);
std::optional<RedoTrailer> DecodeRedoTrailer(const RedoTrailerImage& bytes);

/// Checksum of a sequence of bytes: fast, and certain to notice a byte that was not written. No
/// defence against intent.
class RedoChecksum {
 public:
  /// All pieces but the last must be multiples of kBlock bytes.
  static constexpr std::size_t kBlock = 32;

  void Add(const unsigned char* bytes, std::size_t size);
  std::uint64_t Get() const;

 private:
  void AddBlock(const unsigned char* bytes);

  static constexpr std::size_t kLanes = 4;  // independent of each other, so that they overlap
  std::uint64_t m_lanes[kLanes] = {1, 2, 3, 4};
};

}  // namespace Zarn::Format
