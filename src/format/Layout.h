#pragma once

#include <cstddef>
#include <cstdint>

/// Where every field of a compact file lies. Each offset is the one before it plus that field's
/// width; nothing here depends on a compiler's struct layout.
///
///   file   = header | index area | data area
///   header = 64 bytes at 0, scrambled when a password is set
///   index  = at the header's indexOffset: grid header + 8 bytes per cell,
///            or naming header + 16 bytes per slot
///   data   = records, each found through an index entry
///
/// All numbers are in the byte order that the header's bigEndianFlag names.
namespace Zarn::Format {

inline constexpr std::size_t kWidth1 = 1, kWidth4 = 4, kWidth8 = 8;

// File header.
inline constexpr std::size_t kHeaderSize = 64;
inline constexpr std::size_t kMagicOffset = 0;
inline constexpr std::size_t kBigEndianFlagOffset = kMagicOffset + 2 * kWidth1;
inline constexpr std::size_t kFormatVersionOffset = kBigEndianFlagOffset + kWidth1;
inline constexpr std::size_t kFileKindOffset = kFormatVersionOffset + kWidth4;
inline constexpr std::size_t kCreateTimeOffset = kFileKindOffset + kWidth4;
inline constexpr std::size_t kIndexOffsetOffset = kCreateTimeOffset + kWidth8;
inline constexpr std::size_t kReservedOffset = kIndexOffsetOffset + kWidth8;
static_assert(kReservedOffset == 27 && kHeaderSize - kReservedOffset == 37);

// Within the reserved bytes: four words of this host's order by which those who use a file at the
// same time tell each other of changes (Io::Board). Zero at rest, and scrambled like all the
// header. Whoever writes the header of a file in use leaves them, and what is behind them, alone.
inline constexpr std::size_t kHeaderFieldsSize = 32;
inline constexpr std::size_t kGenerationWordOffset = kHeaderFieldsSize;
inline constexpr std::size_t kChangeWordOffset = kGenerationWordOffset + kWidth8;
inline constexpr std::size_t kEntriesWordOffset = kChangeWordOffset + kWidth8;
inline constexpr std::size_t kMaskOffset = kEntriesWordOffset + kWidth8;
static_assert(kReservedOffset <= kHeaderFieldsSize && kMaskOffset < kHeaderSize);

inline constexpr std::uint8_t kMagic[2] = {'C', 'F'};
/// What a new file gets; its names are UTF-16.
inline constexpr std::uint32_t kCurrentVersion = 20120214;
/// The older form, whose names are bytes of some charset; also the preset of header bytes that were
/// neither read nor written yet.
inline constexpr std::uint32_t kOlderVersion = 20111111;
inline constexpr std::uint32_t kGridFile = 0;
inline constexpr std::uint32_t kNamingFile = 1;

// Grid header and entries.
inline constexpr std::size_t kRowCountOffset = 0;
inline constexpr std::size_t kColCountOffset = kRowCountOffset + kWidth4;
inline constexpr std::size_t kGridFlagsOffset = kColCountOffset + kWidth4;
inline constexpr std::size_t kGridHeaderSize = kGridFlagsOffset + kWidth4;
inline constexpr std::size_t kGridEntrySize = kWidth8;
static_assert(kGridHeaderSize == 12);

/// Most cells that a grid may be created with (the 32-bit product of rows and columns).
inline constexpr std::uint32_t kMaxGridCells = 0x10000000;
static_assert(std::uint64_t{kMaxGridCells} * kGridEntrySize <= UINT32_MAX,
              "the entries of every grid that can be created are addressed in 32 bits");

// Naming header and slots.
inline constexpr std::size_t kNamingCapacityOffset = 0;
inline constexpr std::size_t kNamingCountOffset = kNamingCapacityOffset + kWidth8;
inline constexpr std::size_t kMaxSize1Offset = kNamingCountOffset + kWidth8;
inline constexpr std::size_t kMaxSize2Offset = kMaxSize1Offset + kWidth8;
inline constexpr std::size_t kNamingFlagsOffset = kMaxSize2Offset + kWidth8;
inline constexpr std::size_t kNamingHeaderSize = kNamingFlagsOffset + kWidth4;
inline constexpr std::size_t kNamingSlotSize = 2 * kWidth8;  // index value, hash code
static_assert(kNamingHeaderSize == 36);

/// Most slots that a naming index may have.
inline constexpr std::uint64_t kMaxNamingCapacity = 0x8000000;

/// Bit 0 of the grid and the naming flags: tiles keep versions.
inline constexpr std::uint32_t kVersionsEnabled = 1;

// Records: length | naming files: charset, name length, name | version count | table |
// capacity | filled length | payload area.
inline constexpr std::size_t kRecordLengthSize = kWidth8;
inline constexpr std::size_t kCharsetOffset = kRecordLengthSize;
inline constexpr std::size_t kNameLengthOffset = kCharsetOffset + kWidth4;
inline constexpr std::size_t kNameOffset = kNameLengthOffset + kWidth4;
inline constexpr std::size_t kVersionCountSize = kWidth4;
inline constexpr std::size_t kVersionEntrySize = 2 * kWidth8;  // stamp, locator
inline constexpr std::size_t kPayloadSizesSize = 2 * kWidth8;  // capacity, filled length

/// A head without name and without versions: less than this is no record.
inline constexpr std::size_t kMinGridRecord =
    kRecordLengthSize + kVersionCountSize + kPayloadSizesSize;
inline constexpr std::size_t kMinNamingRecord = kNameOffset + kVersionCountSize + kPayloadSizesSize;
/// The head of a grid record with one version.
inline constexpr std::size_t kGridRecordHead = kMinGridRecord + kVersionEntrySize;
static_assert(kMinGridRecord == 28 && kMinNamingRecord == 36 && kGridRecordHead == 44);

/// Charset number that marks a name as 16-bit units in the file's byte order.
inline constexpr std::uint32_t kNameCharsetUtf16 = 251;

// Status of a cell, a slot or a version: the top byte of an index value or a locator.
inline constexpr std::uint8_t kStatusEmpty = 0;
inline constexpr std::uint8_t kStatusComplete = 1;
inline constexpr std::uint8_t kStatusPartial = 2;
inline constexpr std::uint8_t kStatusUnknown = 4;  // an answer, never stored

}  // namespace Zarn::Format
