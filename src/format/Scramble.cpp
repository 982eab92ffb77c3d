#include "Scramble.h"

#include <bit>
#include <cstring>
#include <utility>

namespace Zarn::Format {

std::uint32_t GenerateKey(const char16_t* password) {
  if (password == nullptr) return 0;
  std::uint32_t key = 0;
  do
    key = std::rotl(key + *password, 7);
  while (*password++ != 0);
  return key;
}

void GenerateStream(unsigned char* state, std::uint32_t key) {
  unsigned char keyBytes[4];
  std::memcpy(keyBytes, &key, sizeof keyBytes);
  for (int i = 0; i < 256; ++i)
    state[i] = static_cast<unsigned char>(i);
  unsigned char j = 0;
  for (int i = 0; i < 256; ++i) {
    j = static_cast<unsigned char>(j + state[i] + keyBytes[i % 4]);
    std::swap(state[i], state[j]);
  }
}

void GenerateXorString(unsigned char* out, unsigned char* state) {
  unsigned char j = 0;
  // From 1, so 255 steps: the last byte of `out` is never written.
  for (int i = 1; i < 256; ++i) {
    j = static_cast<unsigned char>(j + state[i]);
    std::swap(state[i], state[j]);
    out[i - 1] = state[static_cast<unsigned char>(state[i] + state[j])];
  }
}

void ReMakeStream(unsigned char* buffer, int length, const unsigned char* xorString) {
  if (xorString == nullptr || length <= 0) return;
  // The length picks the byte, and one byte serves all positions: existing files are read so.
  const unsigned char mask = xorString[length % 256];
  for (int i = 0; i < length; ++i)
    buffer[i] ^= mask;
}

XorString MakeXorString(const char16_t* password) {
  XorString out{};
  if (*password == 0) return out;
  unsigned char state[256];
  GenerateStream(state, GenerateKey(password));
  GenerateXorString(out.data(), state);
  return out;
}

}  // namespace Zarn::Format
