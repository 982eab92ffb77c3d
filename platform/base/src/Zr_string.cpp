#include "Zr_string.h"

namespace Zarn {

int Zr_strlen(const char16_t* text) {
  if (text == nullptr) return 0;
  const char16_t* end = text;
  while (*end != 0)
    ++end;
  return static_cast<int>(end - text);
}

int Zr_strcmp(const char16_t* a, const char16_t* b) {
  while (*a != 0 && *a == *b) {
    ++a;
    ++b;
  }
  return static_cast<int>(*a) - static_cast<int>(*b);
}

}  // namespace Zarn
