#pragma once
// VRF names: at most 100 bytes; the empty name is the null VRF.

#include <string>
#include <string_view>

#include "platform/zub/Exception.h"
#include "platform/zub/Types.h"

namespace L3 {

class VrfName {
 public:
  static constexpr size_t maxLength = 100;
  VrfName() = default;
  VrfName(std::string_view name) : name_(check(name)) {}          // NOLINT: implicit by design
  VrfName(const char* name) : VrfName(std::string_view(name)) {}  // NOLINT
  VrfName(const std::string& name) : VrfName(std::string_view(name)) {}  // NOLINT

  const std::string& name() const { return name_; }
  bool empty() const { return name_.empty(); }
  std::string stringValue() const { return name_; }
  size_t hash() const { return std::hash<std::string>()(name_); }
  friend bool operator==(const VrfName&, const VrfName&) = default;
  friend auto operator<=>(const VrfName&, const VrfName&) = default;

 private:
  static std::string check(std::string_view name) {
    if (name.size() > maxLength) {
      throw Zub::RangeException("VrfName::bytes > VrfName::maxLength not allowed");
    }
    return std::string(name);
  }
  std::string name_;
};

}  // namespace L3
