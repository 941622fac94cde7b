#pragma once
// Basic value types of the framework and the one text conversion used by traces,
// log messages, entity names and error texts.

#include <charconv>
#include <concepts>
#include <cstdint>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/zub/Ptr.h"

namespace Zub {

// A byte string: may hold any bytes, not only text.
using String = std::string;
// The name of an entity or of a collection member.
using Name = std::string;
// Time in seconds (since the epoch for wall time); fractional.
using Seconds = double;
// Time in nanoseconds: the clock's and the scheduler's integer time base.
using Nanoseconds = int64_t;

constexpr uint16_t maxU16() { return std::numeric_limits<uint16_t>::max(); }
constexpr uint32_t maxU32() { return std::numeric_limits<uint32_t>::max(); }

constexpr Nanoseconds nsFromSeconds(Seconds s) { return static_cast<Nanoseconds>(s * 1e9); }
constexpr Seconds secondsFromNs(Nanoseconds ns) { return static_cast<Seconds>(ns) / 1e9; }

// ---- text conversion --------------------------------------------------------------
// appendTo(out, v) appends the text form of v. Types opt in with a member
// `stringValue()`, a free `stringValue(v)` found by argument-dependent lookup, or an
// ostream operator<<.

template <class T>
concept HasStringValueMember = requires(const T& t) {
  { t.stringValue() } -> std::convertible_to<std::string>;
};
template <class T>
concept HasStringValueFree = requires(const T& t) {
  { stringValue(t) } -> std::convertible_to<std::string>;
};
template <class T>
concept OstreamPrintable = requires(std::ostream& os, const T& t) {
  os << t;
};

inline void appendTo(std::string& out, std::string_view s) { out.append(s); }
inline void appendTo(std::string& out, const char* s) { out.append(s ? s : "(null)"); }
inline void appendTo(std::string& out, const std::string& s) { out.append(s); }
inline void appendTo(std::string& out, char c) { out.push_back(c); }
inline void appendTo(std::string& out, bool b) { out.append(b ? "true" : "false"); }

template <class T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool> &&
         !std::is_same_v<T, char>) void appendTo(std::string& out, T v) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  (void)ec;
  out.append(buf, end);
}

template <class T>
requires std::is_floating_point_v<T>
void appendTo(std::string& out, T v) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  (void)ec;
  out.append(buf, end);
}

template <class T>
requires(!std::is_arithmetic_v<T> && !std::is_convertible_v<const T&, std::string_view> &&
         (HasStringValueMember<T> || HasStringValueFree<T> ||
          OstreamPrintable<T>)) void appendTo(std::string& out, const T& v) {
  if constexpr (HasStringValueMember<T>) {
    out.append(v.stringValue());
  } else if constexpr (HasStringValueFree<T>) {
    out.append(stringValue(v));
  } else {
    std::ostringstream os;
    os << v;
    out.append(os.str());
  }
}

template <class T>
void appendTo(std::string& out, const Ptr<T>& p) {
  if (!p) {
    out.append("null");
  } else if constexpr (requires { appendTo(out, *p); }) {
    appendTo(out, *p);
  } else {
    std::ostringstream os;
    os << static_cast<const void*>(p.get());
    out.append(os.str());
  }
}

template <class T>
std::string toString(const T& v) {
  std::string s;
  appendTo(s, v);
  return s;
}

// Concatenates the text forms of its arguments.
template <class... A>
std::string str(const A&... a) {
  std::string s;
  (appendTo(s, a), ...);
  return s;
}

// Hash used by the framework's hash-ordered collections: a member `hash()` when the
// type has one, std::hash otherwise.
template <class T>
struct Hash {
  size_t operator()(const T& v) const noexcept {
    if constexpr (requires { v.hash(); }) {
      return static_cast<size_t>(v.hash());
    } else {
      return std::hash<T>()(v);
    }
  }
};

// Mixes a value into a running hash (boost-style combine).
inline size_t hashMix(size_t seed, size_t v) {
  return seed ^ (v + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

}  // namespace Zub
