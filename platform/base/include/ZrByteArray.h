#pragma once

#include <cstdlib>
#include <memory>
#include <utility>

#include "HxPlatformExport.h"
#include "ZrByteOrder.h"

namespace Zarn {

/// Byte buffer with a read/write position and a byte-swap switch.
///
/// Sizes and positions are 64-bit byte counts; the position never lies beyond the size. Every
/// operation that needs memory reports failure by its result and throws nothing, except the
/// constructors and assignments that copy bytes: these have no result and throw std::bad_alloc.
/// An object is used by one thread at a time.
class HX_PLATFORM_API ZrByteArray {
 public:
  /// Counts bytes.
  using Size = unsigned long long;

  ZrByteArray() noexcept = default;
  /// A copy of `size` bytes at `data`.
  ZrByteArray(const void* data, Size size);
  /// Copies bytes, position and settings.
  ZrByteArray(const ZrByteArray& other);
  /// Copies bytes, position and settings.
  ZrByteArray& operator=(const ZrByteArray& other);
  /// Takes over all of `other`, which is like a new one then.
  ZrByteArray(ZrByteArray&& other) noexcept { Swap(other); }
  /// Takes over all of `other`, which is like a new one then.
  ZrByteArray& operator=(ZrByteArray&& other) noexcept;
  ~ZrByteArray() = default;

  /// The bytes; null while no memory was ever needed.
  unsigned char* GetData() { return m_bytes.get() + m_start; }
  /// The same.
  const unsigned char* GetData() const { return m_bytes.get() + m_start; }
  /// How many bytes there are.
  Size GetSize() const { return m_size; }
  /// Whether there is none.
  bool IsEmpty() const { return m_size == 0; }

  /// Sets the size; kept bytes stay, new bytes are zero.
  bool Resize(Size size);
  /// Sets the size; the contents are unspecified afterwards. For bytes about to be overwritten.
  bool ResizeForOverwrite(Size size);
  /// Takes away the first `size` bytes, at most all, without moving the others. Position 0.
  void DropFront(Size size);
  /// Makes room for `size` bytes without changing the size.
  bool Reserve(Size size);
  /// Bytes that fit without more memory.
  Size GetReserve() const { return m_reserve; }
  /// Replaces the contents by a copy of `size` bytes at `data`, which must not be this buffer's
  /// own; the position becomes 0.
  bool Assign(const void* data, Size size);
  /// Exchanges bytes and sizes; both positions become 0, growth steps and switches stay.
  void SwapContents(ZrByteArray& other) noexcept;

  /// When the buffer must grow, its reserve grows by a multiple of this many bytes that is enough;
  /// with 0 it grows to just what is needed.
  void SetGrowthStep(Size step) { m_growthStep = step; }
  /// As set; 4096 at first.
  Size GetGrowthStep() const { return m_growthStep; }

  /// Sets the position, clamped to the size, and returns it.
  Size SetPosition(Size position);
  /// Where the next byte is read or written.
  Size GetPosition() const { return m_position; }

  /// While on, scalars are byte-reversed as they are read and written.
  void SetSwap(bool swap) { m_swap = swap; }
  /// As set; off at first.
  bool IsSwap() const { return m_swap; }

  /// Reads a scalar at the position and advances it. Returns the new position, or 0 when fewer
  /// bytes are left than it needs; then the value is 0 and the position stays.
  template <typename T>
  Size Read(T& value) {
    value = T();
    if (m_size - m_position < sizeof(T)) return 0;
    value = LoadScalar<T>(GetData() + m_position, m_swap);
    return m_position += sizeof(T);
  }

  /// Writes a scalar at the position, growing the buffer where it must, and advances. Returns the
  /// new position, or 0 when memory is short; then nothing changes.
  template <typename T>
  Size Write(T value) {
    unsigned char bytes[sizeof(T)];
    StoreScalar<T>(bytes, value, m_swap);
    return WriteBytes(bytes, sizeof bytes);
  }

  /// Reads `size` plain bytes; results as Read, but 0 bytes give the position as it is.
  Size ReadBytes(void* target, Size size);
  /// Writes `size` plain bytes, which must not be this buffer's own; results as Write.
  Size WriteBytes(const void* source, Size size);

 private:
  struct Free {
    void operator()(unsigned char* bytes) const { std::free(bytes); }
  };

  void Swap(ZrByteArray& other) noexcept;
  Size GrownReserve(Size needed) const;

  std::unique_ptr<unsigned char[], Free> m_bytes;
  Size m_start = 0;  // bytes before the first one, left by DropFront
  Size m_size = 0;
  Size m_reserve = 0;  // from the first byte on
  Size m_position = 0;
  Size m_growthStep = 4096;
  bool m_swap = false;
};

}  // namespace Zarn
