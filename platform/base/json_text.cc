#include "base/json_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

namespace base {

namespace {

// The first size of an object or a list: enough for a metric point.
constexpr size_t kFirstBytes = 240;
// The size of a block, half of which is used at least. Less is copied into another text, and more
// is moved.
constexpr size_t kBlockBytes = 4096;
constexpr size_t kFewBytes = kBlockBytes / 2;
// From this size on, a string is long.
constexpr size_t kLongBytes = 256;

// The longest numbers: a sign, and 10 digits; 17 digits, a point, and four zeros or an exponent.
constexpr size_t kMaxIntegerBytes = 11;
constexpr size_t kMaxDoubleBytes = 24;
// Doubles from the first to below the second are written without an exponent.
constexpr double kSmallestPlain = 1e-4;
constexpr double kSmallestWithExponent = 1e15;

// The number of values between two whole numbers that are formatted as integers, and the size of
// numbers up to which they are exact.
constexpr int64_t kScale = 10'000;
constexpr double kMostScaled = 1e11;

// The size of a piece of a long text.
constexpr size_t kPieceBytes = size_t{64} * 1024;

// Eight characters in one integer; their order in it does not matter.
using Eight = uint64_t;

constexpr Eight All(unsigned char character) { return 0x0101010101010101 * Eight{character}; }

// Whether a string contains all eight without an escape: ASCII, at least a space, and neither a
// quote nor a backslash. A difference below borrows from the next character only if the eight are
// not plain.
constexpr bool ArePlain(Eight eight) {
  const Eight below_space = eight - All(' ');
  const Eight is_quote = (eight ^ All('"')) - All(1);
  const Eight is_backslash = (eight ^ All('\\')) - All(1);
  return ((eight | below_space | is_quote | is_backslash) & All(0x80)) == 0;
}

bool IsPlain(std::string_view text) {
  Eight eight = 0;
  for (; text.size() >= sizeof eight; text.remove_prefix(sizeof eight)) {
    memcpy(&eight, text.data(), sizeof eight);
    if (!ArePlain(eight)) return false;
  }
  if (text.empty()) return true;
  eight = All(' ');
  memcpy(&eight, text.data(), text.size());
  return ArePlain(eight);
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

// The size of a string's text if it is valid UTF-8.
size_t QuotedSize(std::string_view value) {
  constexpr std::string_view kShortEscapes = "\"\\\b\f\n\r\t";
  constexpr size_t kShortSize = 2;
  constexpr size_t kLongSize = 6;
  constexpr size_t kQuotes = 2;
  if (IsPlain(value)) return value.size() + kQuotes;
  size_t size = kQuotes;
  for (const char character : value) {
    const bool is_short = kShortEscapes.find(character) != std::string_view::npos;
    const bool is_control = static_cast<unsigned char>(character) < ' ';
    size += is_short ? kShortSize : is_control ? kLongSize : 1;
  }
  return size;
}

// The string's text, by the library's writer.
std::string Quote(std::string_view value) {
  constexpr int kCompact = -1;
  constexpr bool kKeepUtf8 = false;
  return nlohmann::json(value).dump(kCompact, ' ', kKeepUtf8,
                                    nlohmann::json::error_handler_t::replace);
}

// Appends the string's text. In pieces, because the library keeps a copy and the quoted text in
// memory.
void AppendQuoted(std::string_view value, std::string* text) {
  text->push_back('"');
  if (IsPlain(value)) {
    text->append(value);
    value = {};
  }
  while (!value.empty()) {
    const std::string_view piece = FirstPiece(value);
    const std::string quoted = Quote(piece);
    text->append(quoted, 1, quoted.size() - 2);
    value.remove_prefix(piece.size());
  }
  text->push_back('"');
}

std::string Unquote(std::string_view json) {
  if (json.find('\\') == std::string_view::npos)
    return std::string(json.substr(1, json.size() - 2));
  return nlohmann::json::parse(json).get<std::string>();
}

// Writes a number with at most four decimal places, as most measurements are, and returns its end;
// null for other numbers. Invariant: the text is the shortest that parses to the number, since it
// has at most 15 digits, of which no two texts parse to the same.
char* WriteFewPlaces(double value, char* text) {
  constexpr auto kDivisor = static_cast<double>(kScale);
  const double size = std::fabs(value);
  if (size >= kMostScaled) return nullptr;
  const int64_t scaled = std::llround(size * kDivisor);
  if (static_cast<double>(scaled) / kDivisor != size) return nullptr;
  if (std::signbit(value)) *text++ = '-';
  text = std::to_chars(text, text + kMaxIntegerBytes, scaled / kScale).ptr;
  *text++ = '.';
  int64_t rest = scaled % kScale;
  do {
    rest *= 10;
    *text++ = static_cast<char>('0' + rest / kScale);
    rest %= kScale;
  } while (rest > 0);
  return text;
}

}  // namespace

size_t EndOfString(std::string_view outline, size_t begin) {
  size_t end = begin + 1;
  if (outline[begin] == JsonText::kLongString) return end;
  while (outline[end] != '"') end += outline[end] == '\\' ? 2 : 1;
  return end + 1;
}

JsonText::JsonText(char opening) {
  Reallocate(kFirstBytes);
  AddRaw(opening);
}

JsonText::JsonText(JsonText&& other) noexcept
    : full_(std::move(other.full_)),
      tail_(std::exchange(other.tail_, Block())),
      long_strings_(std::move(other.long_strings_)) {}

JsonText& JsonText::operator=(JsonText&& other) noexcept {
  full_ = std::exchange(other.full_, {});
  tail_ = std::exchange(other.tail_, Block());
  long_strings_ = std::exchange(other.long_strings_, {});
  return *this;
}

void JsonText::Grow(size_t size) {
  if (tail_.size >= kFewBytes) StartBlock();
  if (tail_.size > 0)
    Reallocate(std::max(kFirstBytes, 2 * tail_.size + size));
  else
    Reallocate(full_.empty() ? size : std::max(kBlockBytes, size));
}

void JsonText::Reallocate(size_t capacity) {
  auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
  std::copy_n(tail_.bytes.get(), tail_.size, bytes.get());
  tail_.bytes = std::move(bytes);
  tail_.capacity = capacity;
}

void JsonText::StartBlock() {
  if (tail_.size == 0) return;
  // A separator alone in front of a text that is moved.
  if (tail_.size < tail_.capacity / 2) Reallocate(tail_.size);
  full_.push_back(std::exchange(tail_, Block()));
}

void JsonText::ShrinkToFit() {
  const size_t needed = tail_.size + 1;
  if (needed < tail_.capacity) Reallocate(needed);
}

void JsonText::AddRaw(std::string_view json) {
  Advance(std::copy(json.begin(), json.end(), Room(json.size())));
}

void JsonText::Add(int value) {
  char* const room = Room(kMaxIntegerBytes);
  Advance(std::to_chars(room, room + kMaxIntegerBytes, value).ptr);
}

void JsonText::Add(double value) {
  if (!std::isfinite(value)) return AddRaw("null");
  char* const room = Room(kMaxDoubleBytes);
  if (const char* const end = WriteFewPlaces(value, room)) return Advance(end);
  const double size = std::fabs(value);
  const bool is_plain = size >= kSmallestPlain && size < kSmallestWithExponent;
  const auto format = is_plain ? std::chars_format::fixed : std::chars_format::scientific;
  Advance(std::to_chars(room, room + kMaxDoubleBytes, value, format).ptr);
  // A double always has a point or an exponent.
  if (is_plain && value == std::trunc(value)) AddRaw(".0");
}

void JsonText::Add(std::string_view value) {
  if (value.size() >= kLongBytes) {
    long_strings_.emplace_back(value);
    return AddRaw(kLongString);
  }
  // Padded to whole integers, because each string is scanned.
  const size_t padded = (value.size() + sizeof(Eight) - 1) / sizeof(Eight) * sizeof(Eight);
  char* const room = Room(value.size() + 2 + sizeof(Eight));
  char* const end = std::copy(value.begin(), value.end(), room + 1);
  const Eight padding = All(' ');
  memcpy(end, &padding, sizeof padding);
  // The library's writer takes long for a short string.
  if (!IsPlain({room + 1, padded})) return AddRaw(Quote(value));
  *room = '"';
  *end = '"';
  Advance(end + 1);
}

void JsonText::Add(JsonText&& json) {
  std::move(json.long_strings_.begin(), json.long_strings_.end(),
            std::back_inserter(long_strings_));
  json.long_strings_.clear();
  if (json.full_.empty() && json.tail_.size < kFewBytes) return AddRaw(json.tail_.Text());
  StartBlock();
  std::move(json.full_.begin(), json.full_.end(), std::back_inserter(full_));
  json.full_.clear();
  tail_ = std::exchange(json.tail_, Block());
}

JsonText JsonText::CutFrom(size_t begin) {
  JsonText rest(Outline().substr(begin));
  const auto first = long_strings_.begin() + LongStringsBefore(begin);
  std::move(first, long_strings_.end(), std::back_inserter(rest.long_strings_));
  long_strings_.erase(first, long_strings_.end());
  tail_.size = begin;
  return rest;
}

std::string_view JsonText::Outline() const {
  if (!full_.empty()) {
    JsonText joined;
    joined.Reallocate(OutlineSize());
    for (const Block& block : full_) joined.AddRaw(block.Text());
    joined.AddRaw(tail_.Text());
    full_.clear();
    tail_ = std::move(joined.tail_);
  }
  return tail_.Text();
}

ptrdiff_t JsonText::LongStringsBefore(size_t end) const {
  if (long_strings_.empty()) return 0;
  const std::string_view text = Outline().substr(0, end);
  return std::count(text.begin(), text.end(), kLongString);
}

std::string JsonText::StringAt(size_t begin) const {
  if (Outline()[begin] != kLongString)
    return Unquote(Outline().substr(begin, EndOfString(Outline(), begin) - begin));
  // Like a short string, without invalid UTF-8.
  std::string quoted;
  AppendQuoted(long_strings_[static_cast<size_t>(LongStringsBefore(begin))], &quoted);
  return Unquote(quoted);
}

size_t JsonText::OutlineSize() const {
  size_t size = tail_.size;
  for (const Block& block : full_) size += block.size;
  return size;
}

size_t JsonText::WrittenSize() const {
  size_t size = OutlineSize() - long_strings_.size();
  for (const std::string& value : long_strings_) size += QuotedSize(value);
  return size;
}

void JsonText::AppendTo(std::string* text) const {
  auto long_string = long_strings_.begin();
  const auto append = [&](std::string_view rest) {
    for (size_t mark = 0; (mark = rest.find(kLongString)) != std::string_view::npos;) {
      text->append(rest.substr(0, mark));
      AppendQuoted(*long_string++, text);
      rest.remove_prefix(mark + 1);
    }
    text->append(rest);
  };
  for (const Block& block : full_) append(block.Text());
  append(tail_.Text());
}

}  // namespace base
