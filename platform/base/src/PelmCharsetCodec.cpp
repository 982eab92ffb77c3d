#include "PelmCharsetCodec.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>

#include "PELM.h"
#include "Utf8.h"
#include "ZrByteOrder.h"

namespace {

const iconv_t kNotOpen = reinterpret_cast<iconv_t>(-1);

bool IsHostLittleEndian() { return PELM::un_bigendina == 1; }

const char* HostUtf16Name() { return IsHostLittleEndian() ? "UTF-16LE" : "UTF-16BE"; }

bool IsUtf16(PELMCharset::Charset charset) {
  return charset == PELMCharset::kUtf16Le || charset == PELMCharset::kUtf16Be;
}

bool NeedsSwap(PELMCharset::Charset utf16) {
  return (utf16 == PELMCharset::kUtf16Le) != IsHostLittleEndian();
}

// 16-bit units in the order of the charset, from and to the host's.
std::u16string UnitsFromBytes(std::string_view bytes, bool swap) {
  std::u16string units(bytes.size() / 2, u'\0');
  for (std::size_t i = 0; i < units.size(); ++i)
    units[i] = static_cast<char16_t>(Zarn::LoadScalar<std::uint16_t>(&bytes[2 * i], swap));
  return units;
}

std::string BytesFromUnits(std::u16string_view units, bool swap) {
  std::string bytes(units.size() * 2, '\0');
  for (std::size_t i = 0; i < units.size(); ++i)
    Zarn::StoreScalar<std::uint16_t>(&bytes[2 * i], units[i], swap);
  return bytes;
}

}  // namespace

PelmCharsetCodec::PelmCharsetCodec(PELMCharset::Charset charset)
    : m_charset(PELMCharset::Resolve(charset)), m_decoder(kNotOpen), m_encoder(kNotOpen) {}

PelmCharsetCodec::~PelmCharsetCodec() {
  if (m_decoder != kNotOpen) iconv_close(m_decoder);
  if (m_encoder != kNotOpen) iconv_close(m_encoder);
}

bool PelmCharsetCodec::IsUsable() const {
  return PELMCharset::GetEncodingName(m_charset) != nullptr;
}

bool PelmCharsetCodec::Decode(std::string_view bytes, std::u16string& target) {
  std::u16string units;
  if (m_charset == PELMCharset::kUtf8) {
    if (!Utf8::Decode(bytes, Utf8::OnBadByte::kFail, units)) return false;
  } else if (IsUtf16(m_charset)) {
    if (bytes.size() % 2 != 0) return false;
    units = UnitsFromBytes(bytes, NeedsSwap(m_charset));
  } else {
    std::string host;
    const char* name = PELMCharset::GetEncodingName(m_charset);
    if (name == nullptr || !Convert(m_decoder, HostUtf16Name(), name, bytes, host)) return false;
    units = UnitsFromBytes(host, false);
  }
  target = std::move(units);
  return true;
}

bool PelmCharsetCodec::Encode(std::u16string_view units, std::string& target) {
  std::string bytes;
  if (m_charset == PELMCharset::kUtf8) {
    bytes = Utf8::Encode(units);
  } else if (IsUtf16(m_charset)) {
    bytes = BytesFromUnits(units, NeedsSwap(m_charset));
  } else {
    const char* name = PELMCharset::GetEncodingName(m_charset);
    const std::string host = BytesFromUnits(units, false);
    if (name == nullptr || !Convert(m_encoder, name, HostUtf16Name(), host, bytes)) return false;
  }
  target = std::move(bytes);
  return true;
}

bool PelmCharsetCodec::Convert(Handle& handle, const char* to, const char* from,
                               std::string_view input, std::string& output) {
  if (handle == kNotOpen) handle = iconv_open(to, from);
  if (handle == kNotOpen) return false;
  iconv(handle, nullptr, nullptr, nullptr, nullptr);  // forget a conversion that failed half-way

  char* source = const_cast<char*>(input.data());  // iconv's signature; it does not write there
  std::size_t sourceLeft = input.size();
  bool flushed = false;  // a last call without input hands out what a stateful decoder holds back
  while (sourceLeft != 0 || !flushed) {
    char piece[256];
    char* target = piece;
    std::size_t targetLeft = sizeof piece;
    flushed = sourceLeft == 0;
    const std::size_t result = flushed ? iconv(handle, nullptr, nullptr, &target, &targetLeft)
                                       : iconv(handle, &source, &sourceLeft, &target, &targetLeft);
    if (result == static_cast<std::size_t>(-1) && errno != E2BIG) return false;
    if (result != 0 && result != static_cast<std::size_t>(-1)) return false;  // not reversible
    output.append(piece, sizeof piece - targetLeft);
  }
  return true;
}
