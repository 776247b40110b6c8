#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <string_view>
#include <variant>

#include "base/json.h"

namespace base {

namespace {

// More than the length of any number: a sign, 17 digits, a point, an exponent.
constexpr size_t kMaxNumberBytes = 64;
// Doubles from the first to below the second are written without an exponent.
constexpr double kSmallestPlain = 1e-4;
constexpr double kSmallestWithExponent = 1e15;

// The size of a piece of a long text.
constexpr size_t kPieceBytes = size_t{64} * 1024;

// The characters that are not escaped in a string.
constexpr auto kIsPlain = [] {
  std::array<bool, 256> is_plain{};
  for (unsigned char c = ' '; c <= '~'; ++c) is_plain[c] = c != '"' && c != '\\';
  return is_plain;
}();

// An append-only text. `std::string` checks its capacity and writes its end with each appended
// byte, which takes a third of the time of writing.
class Output {
 public:
  explicit Output(std::string* text) : text_(text) {}

  // Room for the next `size` bytes, valid until the next call. If there is none, the text grows to
  // twice what was written, plus `size`.
  char* Room(size_t size) {
    constexpr size_t kSpareBytes = 256;
    if (text_->size() - written_ < size) text_->resize(2 * written_ + size + kSpareBytes);
    return text_->data() + written_;
  }
  // The bytes before `end` have been written.
  void Advance(const char* end) { written_ = static_cast<size_t>(end - text_->data()); }

  void Add(char character) {
    *Room(1) = character;
    ++written_;
  }
  void Add(std::string_view text) {
    Advance(std::copy(text.begin(), text.end(), Room(text.size())));
  }
  void Finish() { text_->resize(written_); }

 private:
  std::string* const text_;
  size_t written_ = 0;
};

bool IsPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return kIsPlain[c]; });
}

// A piece from the start of the text that does not end within a UTF-8 character, so that only
// invalid text is replaced.
std::string_view FirstPiece(std::string_view text) {
  constexpr unsigned kContinuationMask = 0xc0;
  constexpr unsigned kContinuation = 0x80;
  size_t size = std::min(kPieceBytes, text.size());
  while (size < text.size() &&
         (static_cast<unsigned char>(text[size]) & kContinuationMask) == kContinuation)
    ++size;
  return text.substr(0, size);
}

// The size of the escaped text if it is valid UTF-8.
size_t EscapedSize(std::string_view text) {
  constexpr std::string_view kShortEscapes = "\"\\\b\f\n\r\t";
  constexpr size_t kShortSize = 2;
  constexpr size_t kLongSize = 6;
  size_t size = 0;
  for (const char character : text) {
    const bool is_short = kShortEscapes.find(character) != std::string_view::npos;
    const bool is_control = static_cast<unsigned char>(character) < ' ';
    size += is_short ? kShortSize : is_control ? kLongSize : 1;
  }
  return size;
}

// Writes a value. Only strings with escapes are written by the library's writer, which takes as
// long for a short string as this class for a whole metric point.
class Writer {
 public:
  explicit Writer(Output* output) : output_(output) {}

  void Write(const Value& value) { std::visit(*this, value.data()); }

  void operator()(std::nullptr_t) { output_->Add("null"); }
  void operator()(bool value) { output_->Add(value ? "true" : "false"); }
  void operator()(int value) {
    char* const room = output_->Room(kMaxNumberBytes);
    output_->Advance(std::to_chars(room, room + kMaxNumberBytes, value).ptr);
  }
  void operator()(double value) {
    if (!std::isfinite(value)) return (*this)(nullptr);
    const double size = std::fabs(value);
    const bool is_plain = size == 0 || (size >= kSmallestPlain && size < kSmallestWithExponent);
    const auto format = is_plain ? std::chars_format::fixed : std::chars_format::scientific;
    char* const room = output_->Room(kMaxNumberBytes);
    output_->Advance(std::to_chars(room, room + kMaxNumberBytes, value, format).ptr);
    // A double always has a point or an exponent.
    if (is_plain && value == std::trunc(value)) output_->Add(".0");
  }
  void operator()(const std::string& value) {
    // For a large text, another pass costs less than unused memory.
    if (value.size() > kPieceBytes && !IsPlain(value)) return WriteEscaped(value);
    char* end = output_->Room(value.size() + 2);
    *end++ = '"';
    for (const char character : value) {
      if (!kIsPlain[static_cast<unsigned char>(character)]) return WriteEscaped(value);
      *end++ = character;
    }
    *end++ = '"';
    output_->Advance(end);
  }
  void operator()(const Value::List& values) {
    output_->Add('[');
    for (const Value& value : values) {
      if (&value != &values.front()) output_->Add(',');
      Write(value);
    }
    output_->Add(']');
  }
  void operator()(const Value::Members& members) {
    output_->Add('{');
    for (const Value::Member& member : members) {
      if (&member != &members.front()) output_->Add(',');
      (*this)(member.key);
      output_->Add(':');
      Write(member.value);
    }
    output_->Add('}');
  }

 private:
  // In pieces, because the library keeps a copy and the escaped text in memory.
  void WriteEscaped(std::string_view value) {
    constexpr int kCompact = -1;
    constexpr bool kKeepUtf8 = false;
    output_->Room(EscapedSize(value) + 2);
    output_->Add('"');
    while (!value.empty()) {
      const std::string_view piece = FirstPiece(value);
      const std::string escaped = nlohmann::json(piece).dump(
          kCompact, ' ', kKeepUtf8, nlohmann::json::error_handler_t::replace);
      output_->Add(std::string_view(escaped).substr(1, escaped.size() - 2));
      value.remove_prefix(piece.size());
    }
    output_->Add('"');
  }

  Output* const output_;
};

}  // namespace

void JSONWriter::Write(const Value& value, std::string* text) {
  text->clear();
  Output output(text);
  Writer(&output).Write(value);
  output.Finish();
}

}  // namespace base
