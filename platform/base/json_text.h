// Compact JSON text that is appended to, for `base::Value`.
//
// Invariant: no long text is copied, neither when it grows nor when it becomes part of another.
// Kept by blocks, which are moved, and by long strings outside of the text, which are quoted when
// the text is written: a large string exists once, without its escapes, which make it up to six
// times as long. Only `Outline` copies the rest.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace base {

class JsonText {
 public:
  // Part of no JSON text: strings contain control characters as escapes.
  static constexpr char kLongString = '\0';

  JsonText() = default;
  // Of text as for `AddRaw`.
  explicit JsonText(std::string_view json) { AddRaw(json); }
  // Of an object or a list that may grow.
  explicit JsonText(char opening);
  ~JsonText() = default;
  // The other is empty afterwards.
  JsonText(JsonText&& other) noexcept;
  JsonText& operator=(JsonText&& other) noexcept;

  // Text that is JSON already, or a part of it.
  void AddRaw(char json) {
    *Room(1) = json;
    ++tail_.size;
  }
  void AddRaw(std::string_view json);
  void Add(bool value) { AddRaw(value ? "true" : "false"); }
  void Add(int value);
  // With the digits that parse to the same value, and a point or an exponent; NaN and infinities as
  // null.
  void Add(double value);
  // With quotes and escapes; invalid UTF-8 as U+FFFD.
  void Add(std::string_view value);
  void Add(const char* value) = delete;  // Would be a bool.
  void Add(JsonText&& json);

  // Removes the text from `begin` on, which is not within a string, and returns it.
  JsonText CutFrom(size_t begin);
  // Removes the bracket at the end of a text that was cut off.
  void DropLast() { --tail_.size; }
  // Frees unused room but that for a closing bracket.
  void ShrinkToFit();

  // Precondition: not empty.
  [[nodiscard]] char front() const { return (full_.empty() ? tail_ : full_.front()).bytes[0]; }
  // As is the opening bracket of an object or a list that nothing was added to.
  [[nodiscard]] bool IsOneCharacter() const { return full_.empty() && tail_.size == 1; }
  // The text with `kLongString` in place of each long string, valid until the next change.
  [[nodiscard]] std::string_view Outline() const;
  [[nodiscard]] bool IsStringAt(size_t begin) const {
    return Outline()[begin] == '"' || Outline()[begin] == kLongString;
  }
  // The content of the string at that place of the outline.
  [[nodiscard]] std::string StringAt(size_t begin) const;

  // The size of the text that `AppendTo` appends; less if a long string is not valid UTF-8.
  [[nodiscard]] size_t WrittenSize() const;
  void AppendTo(std::string* text) const;

 private:
  struct Block {
    [[nodiscard]] std::string_view Text() const { return {bytes.get(), size}; }

    std::unique_ptr<char[]> bytes;
    size_t size = 0;
    size_t capacity = 0;
  };

  // Room for the next `size` bytes of the tail, valid until the next call.
  char* Room(size_t size) {
    if (tail_.capacity - tail_.size < size) Grow(size);
    return tail_.bytes.get() + tail_.size;
  }
  void Grow(size_t size);
  void Reallocate(size_t capacity);
  void StartBlock();
  // The bytes of the tail before `end` have been written.
  void Advance(const char* end) { tail_.size = static_cast<size_t>(end - tail_.bytes.get()); }
  [[nodiscard]] size_t OutlineSize() const;
  // The number of long strings in front of this place of the outline.
  [[nodiscard]] ptrdiff_t LongStringsBefore(size_t end) const;

  // Mutable because `Outline` joins them.
  mutable std::vector<Block> full_;  // In front of the tail.
  mutable Block tail_;
  // Not quoted, in the order of their marks in the outline.
  std::vector<std::string> long_strings_;
};

// The end of the string that begins there in an outline.
[[nodiscard]] size_t EndOfString(std::string_view outline, size_t begin);

}  // namespace base
