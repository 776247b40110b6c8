#include "kestle/data_encoding.h"

#include <cstddef>
#include <cstdint>

namespace kestle::data_encoding {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The low 24 bits of `bits` contain `bytes` (1 to 3) bytes, the first one highest; missing bytes
// become padding.
void AppendQuartet(uint32_t bits, size_t bytes, std::string* text) {
  for (size_t digit = 0; digit < 4; ++digit)
    text->push_back(digit <= bytes ? kAlphabet[(bits >> (18 - 6 * digit)) & 0x3f] : '=');
}

}  // namespace

std::string Base64Encode(const std::string& data) {
  std::string text;
  text.reserve((data.size() + 2) / 3 * 4);
  uint32_t bits = 0;
  size_t held = 0;
  for (const char byte : data) {
    bits |= uint32_t{static_cast<uint8_t>(byte)} << (16 - 8 * held);
    if (++held < 3) continue;
    AppendQuartet(bits, held, &text);
    bits = 0;
    held = 0;
  }
  if (held > 0) AppendQuartet(bits, held, &text);
  return text;
}

}  // namespace kestle::data_encoding
