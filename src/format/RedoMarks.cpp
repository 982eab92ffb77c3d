#include "RedoMarks.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Zarn::Format {
namespace {

// Mark and trailer begin with a magic and the id.
constexpr std::size_t kMagicSize = 16;
constexpr char kMarkMagic[kMagicSize + 1] = "!!being replaced";
constexpr char kTrailerMagic[kMagicSize + 1] = "end of the image";
static_assert(kMarkMagic[0] == kMarkMagic[1]);

constexpr std::size_t kFirstIdOffset = kMagicSize;
constexpr std::size_t kSecondIdOffset = kFirstIdOffset + kWidth8;
constexpr std::size_t kMarkSize = kSecondIdOffset + kWidth8;
static_assert(kMarkSize == kHeaderFieldsSize, "the words of the board stay");

constexpr std::size_t kImageLengthOffset = kSecondIdOffset + kWidth8;
constexpr std::size_t kChecksumOffset = kImageLengthOffset + kWidth8;
static_assert(kChecksumOffset + kWidth8 <= kRedoTrailerSize);

constexpr bool kSwap = std::endian::native == std::endian::big;
constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;  // odd, so that no bit of a product is lost

std::uint64_t Mix(std::uint64_t lane, std::uint64_t word) {
  return std::rotl((lane ^ word) * kFactor, 29);
}

void EncodeMagicAndId(unsigned char* target, const char* magic, const RedoId& id) {
  std::memcpy(target, magic, kMagicSize);
  StoreScalar(target + kFirstIdOffset, id.first, kSwap);
  StoreScalar(target + kSecondIdOffset, id.second, kSwap);
}

// The id, if the bytes begin with this magic.
std::optional<RedoId> DecodeId(const unsigned char* bytes, const char* magic) {
  if (std::memcmp(bytes, magic, kMagicSize) != 0) return std::nullopt;
  return RedoId{LoadScalar<std::uint64_t>(bytes + kFirstIdOffset, kSwap),
                LoadScalar<std::uint64_t>(bytes + kSecondIdOffset, kSwap)};
}

}  // namespace

HeaderImage EncodeRedoMark(const RedoId& id, const HeaderImage& header) {
  HeaderImage mark = header;
  EncodeMagicAndId(mark.data(), kMarkMagic, id);
  return mark;
}

std::optional<RedoId> DecodeRedoMark(const HeaderImage& bytes) {
  return DecodeId(bytes.data(), kMarkMagic);
}

RedoTrailerImage EncodeRedoTrailer(const RedoTrailer& trailer) {
  RedoTrailerImage image = {};
  EncodeMagicAndId(image.data(), kTrailerMagic, trailer.id);
  StoreScalar(image.data() + kImageLengthOffset, trailer.imageLength, kSwap);
  StoreScalar(image.data() + kChecksumOffset, trailer.checksum, kSwap);
  return image;
}

std::optional<RedoTrailer> DecodeRedoTrailer(const RedoTrailerImage& bytes) {
  const auto id = DecodeId(bytes.data(), kTrailerMagic);
  if (!id) return std::nullopt;
  return RedoTrailer{*id, LoadScalar<std::uint64_t>(bytes.data() + kImageLengthOffset, kSwap),
                     LoadScalar<std::uint64_t>(bytes.data() + kChecksumOffset, kSwap)};
}

void RedoChecksum::Add(std::uint64_t position, const unsigned char* bytes, std::uint64_t size) {
  for (std::uint64_t done = 0; done < size; done += kChunk)
    AddChunk((position + done) / kChunk, bytes + done,
             std::min<std::uint64_t>(kChunk, size - done));
}

// Zeros give zero, so that chunks of zeros count nothing. Lanes are independent of each other: a
// processor works on all of them at once.
void RedoChecksum::AddChunk(std::uint64_t number, const unsigned char* bytes, std::size_t size) {
  constexpr std::size_t kLanes = 4;
  constexpr std::size_t kBlock = kLanes * kWidth8;
  std::uint64_t lanes[kLanes] = {};
  const auto addBlock = [&lanes](const unsigned char* block) {
    for (std::size_t lane = 0; lane < kLanes; ++lane)
      lanes[lane] = Mix(lanes[lane], LoadScalar<std::uint64_t>(block + lane * kWidth8, kSwap));
  };
  for (; size >= kBlock; bytes += kBlock, size -= kBlock)
    addBlock(bytes);
  unsigned char last[kBlock] = {};
  std::copy_n(bytes, size, last);
  addBlock(last);
  std::uint64_t hash = 0;
  for (const std::uint64_t lane : lanes)
    hash = Mix(hash, lane);
  m_sum += hash * (2 * number + 1);
}

}  // namespace Zarn::Format
