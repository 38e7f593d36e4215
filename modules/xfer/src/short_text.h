// A text for people: one line, bounded, without control characters; such as what lies behind the code of a failure.
//
// Threads: a plain value.
// Errors:  none.  Needs no memory, since a failure may be the lack of it; what does not fit is cut off.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace xfer {

class ShortText {
 public:
  static constexpr std::size_t kMostBytes = 1000;

  /// Of texts and unsigned numbers, one behind the other.
  template <class... Parts>
  static ShortText of(const Parts&... parts) noexcept {
    ShortText text;
    (text.add(parts), ...);
    return text;
  }

  /// Appends.  Control characters become question marks; a UTF-8 character that does not fit is left out as a whole,
  /// with all that follows.
  void add(std::string_view text) noexcept;

  template <class Number, std::enable_if_t<std::is_unsigned_v<Number>, int> = 0>
  void add(Number number) noexcept {
    addNumber(number);
  }

  /// Appends a text of libcurl's without the user and the password of the addresses in it.
  void addWithoutUserinfo(std::string_view text) noexcept;

  /// Appends an address without user, password, query and fragment.
  void addAddress(std::string_view url) noexcept;

  [[nodiscard]] std::string_view view() const noexcept { return {bytes_.data(), size_}; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }

 private:
  void addNumber(std::uint64_t number) noexcept;

  std::array<char, kMostBytes> bytes_{};
  std::size_t size_ = 0;
  bool full_ = false;
};

}  // namespace xfer
