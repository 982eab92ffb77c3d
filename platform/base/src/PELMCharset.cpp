#include "PELMCharset.h"

#include <atomic>

namespace {

struct Encoding {
  PELMCharset::Charset charset;
  const char* name;
};

// The one table from charset numbers to the names that iconv knows.
constexpr Encoding kEncodings[] = {
    {PELMCharset::kAnsi, "CP1252"},       {PELMCharset::kMac, "MACINTOSH"},
    {PELMCharset::kShiftJis, "CP932"},    {PELMCharset::kHangul, "CP949"},
    {PELMCharset::kJohab, "JOHAB"},       {PELMCharset::kGb2312, "CP936"},
    {PELMCharset::kChineseBig5, "CP950"}, {PELMCharset::kGreek, "CP1253"},
    {PELMCharset::kTurkish, "CP1254"},    {PELMCharset::kVietnamese, "CP1258"},
    {PELMCharset::kHebrew, "CP1255"},     {PELMCharset::kArabic, "CP1256"},
    {PELMCharset::kBaltic, "CP1257"},     {PELMCharset::kRussian, "CP1251"},
    {PELMCharset::kThai, "CP874"},        {PELMCharset::kEastEurope, "CP1250"},
    {PELMCharset::kUtf8, "UTF-8"},        {PELMCharset::kUtf16Le, "UTF-16LE"},
    {PELMCharset::kUtf16Be, "UTF-16BE"},
};

std::atomic<PELMCharset::Charset> g_current{PELMCharset::kUtf8};

}  // namespace

PELMCharset::Charset PELMCharset::GetCurrent() { return g_current.load(); }

bool PELMCharset::SetCurrent(Charset charset) {
  if (charset == kDefault || GetEncodingName(charset) == nullptr) return false;
  g_current.store(charset);
  return true;
}

PELMCharset::Charset PELMCharset::Resolve(Charset charset) {
  return charset == kDefault ? GetCurrent() : charset;
}

const char* PELMCharset::GetEncodingName(Charset charset) {
  const Charset resolved = Resolve(charset);
  for (const Encoding& encoding : kEncodings)
    if (encoding.charset == resolved) return encoding.name;
  return nullptr;
}
