#include "hx/cursor.h"

#include "Failure.h"
#include "Walk.h"

namespace hx {

Cursor::Cursor() = default;
Cursor::Cursor(Cursor&&) noexcept = default;
Cursor& Cursor::operator=(Cursor&&) noexcept = default;
Cursor::~Cursor() = default;

bool Cursor::next() {
  const unsigned int result = m_entry.m_walk->cursor.Next();
  if (result != Zarn::ZrResult::kNotFound) Expect(result);
  return result == Zarn::ZrResult::kOk;
}

std::uint64_t Cursor::damaged() const noexcept { return m_entry.m_walk->cursor.GetDamagedCount(); }

Cell Entry::cell() const noexcept { return {m_walk->cursor.GetRow(), m_walk->cursor.GetCol()}; }

std::string Entry::name() const { return m_walk->cursor.GetName().ToUtf8(); }

const std::vector<Stamp>& Entry::stamps() const noexcept { return m_walk->cursor.GetStamps(); }

std::uint64_t Entry::size() const noexcept { return m_walk->cursor.GetSize(); }

std::uint64_t Entry::filled() const noexcept { return m_walk->cursor.GetVersion().filledLength; }

Bytes Entry::payload() const noexcept {
  const unsigned char* const data = m_walk->cursor.GetData();
  return data != nullptr ? Bytes(data, static_cast<std::size_t>(size())) : Bytes();
}

}  // namespace hx
