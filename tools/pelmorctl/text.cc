#include "tools/pelmorctl/text.h"

#include <cstddef>
#include <cstdint>

namespace pelmorctl {

namespace {

// The lead bytes of a sequence, and what its code point must be at least.
struct Form {
  size_t continuations;
  uint32_t smallest;
  uint8_t mask;
  uint8_t lead;
};
constexpr Form kForms[] = {
    {0, 0, 0x80, 0x00}, {1, 0x80, 0xe0, 0xc0}, {2, 0x800, 0xf0, 0xe0}, {3, 0x10000, 0xf8, 0xf0}};
constexpr uint32_t kLargest = 0x10ffff;

bool IsSurrogate(uint32_t code_point) { return code_point >= 0xd800 && code_point <= 0xdfff; }

// The length of the sequence at the start of `text`; 0 when it is none.
size_t SequenceLength(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text.front());
  for (const Form& form : kForms) {
    if ((lead & form.mask) != form.lead) continue;
    if (text.size() <= form.continuations) return 0;
    uint32_t code_point = lead & static_cast<uint8_t>(~form.mask);
    for (size_t i = 1; i <= form.continuations; ++i) {
      const auto byte = static_cast<uint8_t>(text[i]);
      if ((byte & 0xc0) != 0x80) return 0;
      code_point = code_point << 6 | (byte & 0x3f);
    }
    const bool valid =
        code_point >= form.smallest && code_point <= kLargest && !IsSurrogate(code_point);
    return valid ? form.continuations + 1 : 0;
  }
  return 0;
}

}  // namespace

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace pelmorctl
