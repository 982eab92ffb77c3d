#pragma once

#include <array>
#include <cstdint>

/// Scrambling of the file header by a password: every byte is XORed with one byte, the 65th of a
/// key stream made from the password. It deters a glance, not an attacker.
namespace Zarn::Format {

using XorString = std::array<unsigned char, 256>;

/// Number of a password (NUL-terminated): its units and the terminator, each added and rotated in.
/// 0 for null.
std::uint32_t GenerateKey(const char16_t* password);

/// Fills the 256 bytes of `state` with the permutation that the key's four bytes, as they lie in
/// this host's memory, schedule.
void GenerateStream(unsigned char* state, std::uint32_t key);

/// Writes 255 bytes of key stream to `out` and permutes `state` on the way. out[255] keeps what it
/// held.
void GenerateXorString(unsigned char* out, unsigned char* state);

/// XORs `length` bytes with the one byte xorString[length mod 256]; its own inverse. Nothing
/// happens for a null xorString or a length of 0 or less.
void ReMakeStream(unsigned char* buffer, int length, const unsigned char* xorString);

/// The stream for a password (NUL-terminated); all zero, which scrambles nothing, for an empty one.
XorString MakeXorString(const char16_t* password);

}  // namespace Zarn::Format
