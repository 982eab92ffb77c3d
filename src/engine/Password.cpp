#include <utility>

#include "HeaderIo.h"
#include "OperationLock.h"
#include "Scramble.h"
#include "ZrCompactFile.h"

namespace Zarn {

// The header is read from the file again: what is in memory may be older than what another process
// has written.
unsigned int ZrCompactFile::SetPassword(const PelmUnicodeString& password) {
  constexpr unsigned int kDone = 1;
  constexpr unsigned int kFailed = 0;
  if (const auto cache = GetCacheFile()) return cache->SetPassword(password);

  const Engine::OperationLock lock(*this, Engine::OperationLock::kWriter);
  if (!lock.IsUsable() || IsReadOnly()) return kFailed;
  Format::HeaderImage header;
  bool swap;
  const Format::XorString xorString = Format::MakeXorString(password.GetBuffer());
  if (Io::ReadFileHeader(*m_file, m_xorString, header, swap) != Io::HeaderRead::kOk ||
      !Io::WriteFileHeader(*m_file, xorString, header, swap))
    return kFailed;
  m_strPassword = password;
  m_xorString = xorString;
  const std::lock_guard state(m_stateMutex);
  m_headerOnDisk = Io::EncodeFileHeader(header, swap, xorString);
  return kDone;
}

void ZrCompactFile::SwapByte(unsigned char& a, unsigned char& b) { std::swap(a, b); }

unsigned int ZrCompactFile::GenerateKey(const char16_t* password) {
  return Format::GenerateKey(password);
}

void ZrCompactFile::GenerateStream(unsigned char* state, int key) {
  Format::GenerateStream(state, static_cast<std::uint32_t>(key));
}

void ZrCompactFile::GenerateXorString(unsigned char* out, unsigned char* state) {
  Format::GenerateXorString(out, state);
}

void ZrCompactFile::ReMakeStream(unsigned char* buffer, int length, unsigned char* xorString) {
  Format::ReMakeStream(buffer, length, xorString);
}

}  // namespace Zarn
