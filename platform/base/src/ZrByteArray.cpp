#include "ZrByteArray.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "ZrFailure.h"

namespace Zarn {

ZrByteArray::ZrByteArray(const void* data, Size size) {
  if (!Assign(data, size)) throw std::bad_alloc();
}

ZrByteArray::ZrByteArray(const ZrByteArray& other) { *this = other; }

ZrByteArray& ZrByteArray::operator=(const ZrByteArray& other) {
  if (this == &other) return *this;
  if (!Assign(other.GetData(), other.m_size)) throw std::bad_alloc();
  m_position = other.m_position;
  m_growthStep = other.m_growthStep;
  m_swap = other.m_swap;
  return *this;
}

ZrByteArray& ZrByteArray::operator=(ZrByteArray&& other) noexcept {
  ZrByteArray taken(std::move(other));
  Swap(taken);
  return *this;
}

void ZrByteArray::Swap(ZrByteArray& other) noexcept {
  std::swap(m_bytes, other.m_bytes);
  std::swap(m_start, other.m_start);
  std::swap(m_size, other.m_size);
  std::swap(m_reserve, other.m_reserve);
  std::swap(m_position, other.m_position);
  std::swap(m_growthStep, other.m_growthStep);
  std::swap(m_swap, other.m_swap);
}

void ZrByteArray::SwapContents(ZrByteArray& other) noexcept {
  std::swap(m_bytes, other.m_bytes);
  std::swap(m_start, other.m_start);
  std::swap(m_size, other.m_size);
  std::swap(m_reserve, other.m_reserve);
  m_position = 0;
  other.m_position = 0;
}

bool ZrByteArray::Resize(Size size) {
  if (!Reserve(size)) return false;
  if (size > m_size) std::memset(GetData() + m_size, 0, size - m_size);
  m_size = size;
  m_position = std::min(m_position, size);
  return true;
}

bool ZrByteArray::ResizeForOverwrite(Size size) {
  m_reserve += std::exchange(m_start, 0);
  if (size > m_reserve) {
    if (size > PTRDIFF_MAX) return FailBySystem(ENOMEM);
    const Size reserve = GrownReserve(size);
    auto* bytes = static_cast<unsigned char*>(std::malloc(reserve));
    if (bytes == nullptr) return FailBySystem(ENOMEM);
    m_bytes.reset(bytes);
    m_reserve = reserve;
  }
  m_size = size;
  m_position = std::min(m_position, size);
  return true;
}

void ZrByteArray::DropFront(Size size) {
  size = std::min(size, m_size);
  m_start += size;
  m_size -= size;
  m_reserve -= size;
  m_position = 0;
}

bool ZrByteArray::Reserve(Size size) {
  if (size <= m_reserve) return true;
  if (size > PTRDIFF_MAX) return FailBySystem(ENOMEM);
  if (m_start != 0) {
    std::memmove(m_bytes.get(), GetData(), m_size);
    m_reserve += std::exchange(m_start, 0);
    return Reserve(size);
  }
  const Size reserve = GrownReserve(size);
  auto* bytes = static_cast<unsigned char*>(std::realloc(m_bytes.get(), reserve));
  if (bytes == nullptr) return FailBySystem(ENOMEM);
  static_cast<void>(m_bytes.release());  // realloc has taken it over
  m_bytes.reset(bytes);
  m_reserve = reserve;
  return true;
}

ZrByteArray::Size ZrByteArray::GrownReserve(Size needed) const {
  if (m_growthStep == 0) return needed;
  const Size steps = (needed - m_reserve) / m_growthStep + 1;
  if (steps > (PTRDIFF_MAX - m_reserve) / m_growthStep) return needed;
  return m_reserve + steps * m_growthStep;
}

bool ZrByteArray::Assign(const void* data, Size size) {
  if (!ResizeForOverwrite(size)) return false;
  if (size != 0) std::memcpy(GetData(), data, size);
  m_position = 0;
  return true;
}

ZrByteArray::Size ZrByteArray::SetPosition(Size position) {
  return m_position = std::min(position, m_size);
}

ZrByteArray::Size ZrByteArray::ReadBytes(void* target, Size size) {
  if (m_size - m_position < size) return 0;
  if (size != 0) std::memcpy(target, GetData() + m_position, size);
  return m_position += size;
}

ZrByteArray::Size ZrByteArray::WriteBytes(const void* source, Size size) {
  if (size > PTRDIFF_MAX - m_position || !Reserve(m_position + size)) return 0;
  if (size != 0) std::memcpy(GetData() + m_position, source, size);
  m_position += size;
  m_size = std::max(m_size, m_position);
  return m_position;
}

}  // namespace Zarn
