#include <utility>

#include "Scramble.h"
#include "ZrCompactFile.h"

namespace Zarn {

void ZrCompactFile::SwapByte(unsigned char& a, unsigned char& b) {
  std::swap(a, b);
}

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
