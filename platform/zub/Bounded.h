#pragma once
// A bounded unsigned value: one field `value` of type Rep within [Min, Max], Default
// when default-constructed. Construction from an integer or from its decimal text
// outside the bounds raises RangeException with the type's own message:
//
//   struct SampleRate : Zub::Bounded<SampleRate, uint32_t, 1024, 16777216, 1048576> {
//     using Bounded::Bounded;
//     static constexpr const char* kRangeMessage = "SampleRate::value < ...";
//   };

#include <charconv>
#include <compare>
#include <string>
#include <string_view>

#include "platform/zub/Exception.h"
#include "platform/zub/Types.h"

namespace Zub {

template <class Derived, class Rep, long long Min, long long Max, long long Default>
class Bounded {
 public:
  using RepType = Rep;
  static constexpr Rep kMin = static_cast<Rep>(Min);
  static constexpr Rep kMax = static_cast<Rep>(Max);
  static constexpr Rep kDefault = static_cast<Rep>(Default);

  constexpr Bounded() noexcept : value_(kDefault) {}
  explicit Bounded(long long v) : value_(check(v)) {}
  explicit Bounded(std::string_view text) : value_(check(parse(text))) {}

  constexpr Rep value() const noexcept { return value_; }
  friend constexpr bool operator==(const Bounded& a, const Bounded& b) noexcept {
    return a.value_ == b.value_;
  }
  friend constexpr auto operator<=>(const Bounded& a, const Bounded& b) noexcept {
    return a.value_ <=> b.value_;
  }
  std::string stringValue() const { return std::to_string(value_); }
  size_t hash() const noexcept { return std::hash<Rep>()(value_); }

 protected:
  // For derived operations that deliberately skip the check (FtId arithmetic).
  struct Unchecked {};
  constexpr Bounded(Unchecked, Rep v) noexcept : value_(v) {}
  void rawValueIs(Rep v) noexcept { value_ = v; }

 private:
  static Rep check(long long v) {
    if (v < Min || v > Max) throw RangeException(Derived::kRangeMessage);
    return static_cast<Rep>(v);
  }
  static long long parse(std::string_view text) {
    long long v = -1;
    auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || p != text.data() + text.size()) {
      throw RangeException(Derived::kRangeMessage);
    }
    return v;
  }

  Rep value_;
};

}  // namespace Zub
