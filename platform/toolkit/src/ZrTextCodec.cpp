#include "ZrTextCodec.h"

namespace Zarn {

bool ZrTextCodec::Open(PELMCharset::Charset from, PELMCharset::Charset to) {
  m_target = std::make_unique<PelmCharsetCodec>(to);
  m_source = std::make_unique<PelmCharsetCodec>(from);  // only now the codec is open
  return m_source->IsUsable() && m_target->IsUsable();
}

bool ZrTextCodec::Convert(std::string_view input, std::string& output) {
  std::u16string units;
  return m_source != nullptr && m_source->Decode(input, units) && m_target->Encode(units, output);
}

}  // namespace Zarn
