// MVFormat: the printf-with-objects format engine used by the log and by
// every message the agent builds.
//
// Formats follow the platform's conventions: "%@" prints an object's
// description, "%s" a C string, "%d"/"%i"/"%li"/"%ld"/"%lu"/"%u"/"%x"/"%04x"
// integers, "%f"/"%0.2f"/"%g" reals, "%C" one UTF-16 character, "%%" a
// percent sign. Arguments are carried as typed values, so a conversion
// that has no argument left (a file name containing "%@" that reaches a
// second formatting pass) prints "(null)" and never reads memory.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "MVPlistValue.h"

class MVFormatArg {
 public:
  struct Null {};
  using Value = std::variant<Null, long long, unsigned long long, double, std::string>;

  MVFormatArg() = default;
  MVFormatArg(std::nullptr_t) {}                                    // NOLINT
  MVFormatArg(const char* s) { if (s) value_ = std::string(s); }   // NOLINT
  MVFormatArg(char* s) : MVFormatArg(static_cast<const char*>(s)) {}  // NOLINT
  MVFormatArg(const std::string& s) : value_(s) {}                  // NOLINT
  MVFormatArg(std::string_view s) : value_(std::string(s)) {}       // NOLINT
  MVFormatArg(const MVPlistValue& v);                               // NOLINT
  MVFormatArg(bool b) : value_(static_cast<long long>(b)) {}        // NOLINT
  MVFormatArg(char c) : value_(static_cast<long long>(c)) {}        // NOLINT
  template <typename T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T> &&
                                             !std::is_same_v<T, bool> && !std::is_same_v<T, char>, int> = 0>
  MVFormatArg(T v) : value_(static_cast<long long>(v)) {}           // NOLINT
  template <typename T, std::enable_if_t<std::is_integral_v<T> && std::is_unsigned_v<T> &&
                                             !std::is_same_v<T, bool>, int> = 0>
  MVFormatArg(T v) : value_(static_cast<unsigned long long>(v)) {}  // NOLINT
  MVFormatArg(float v) : value_(static_cast<double>(v)) {}          // NOLINT
  MVFormatArg(double v) : value_(v) {}                              // NOLINT

  const Value& value() const { return value_; }

 private:
  Value value_;
};

// Formats `format` with `args`. Never reads past `args`; unknown conversions
// are copied through as they stand.
std::string MVFormat(std::string_view format, std::span<const MVFormatArg> args);

template <typename... Args>
std::string MVFormatString(std::string_view format, const Args&... args) {
  const MVFormatArg list[] = {MVFormatArg(args)..., MVFormatArg()};
  return MVFormat(format, std::span<const MVFormatArg>(list, sizeof...(Args)));
}
