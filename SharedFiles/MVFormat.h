// MVFormat: the printf-with-objects format engine used by the log and by
// every message the agent builds.
//
// Formats follow the platform's conventions: "%@" prints an object's
// description, "%s" a C string, "%d"/"%i"/"%li"/"%ld"/"%lu"/"%lld"/"%qi"/
// "%u"/"%x"/"%X"/"%o" integers, "%f"/"%e"/"%g"/"%a" reals, "%c" one
// character, "%C" one UTF-16 unit (written as UTF-8), "%p" an address and
// "%%" a percent sign. Flags ("-", "+", " ", "#", "0", "'"), width and
// precision work as in printf, including "*" taken from an argument, and
// "%2$@" picks an argument by position.
//
// Arguments are carried as typed values, so the engine never reads memory
// it was not given:
//   - a conversion with no argument left prints "(null)" (a file name
//     containing "%@" that reaches a second formatting pass is harmless);
//   - an argument of another kind is converted: a number for "%@" or "%s"
//     prints its description, a string for "%d" its leading-number reading
//     ("12abc" is 12), a real for "%d" is truncated;
//   - a nil argument prints "(null)" for "%@"/"%s" and 0 for numbers;
//   - an unknown conversion ("%k", "%n") is copied through as it stands.
// A property-list value keeps its kind: an integer value stays a number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "MVPlistValue.h"

class MVFormatArg {
 public:
  struct Null {};
  // An address, printed by "%p" (and by "%@", as "0x...").
  struct Pointer {
    std::uintptr_t address = 0;
  };
  // Scalars are unpacked; containers, dates and data stay plist values so
  // that "%@" prints their description.
  using Value =
      std::variant<Null, long long, unsigned long long, double, std::string, Pointer, MVPlistValue>;

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
  template <typename E, std::enable_if_t<std::is_enum_v<E>, int> = 0>
  MVFormatArg(E v) : MVFormatArg(static_cast<std::underlying_type_t<E>>(v)) {}  // NOLINT
  MVFormatArg(float v) : value_(static_cast<double>(v)) {}          // NOLINT
  MVFormatArg(double v) : value_(v) {}                              // NOLINT
  MVFormatArg(long double v) : value_(static_cast<double>(v)) {}    // NOLINT
  MVFormatArg(const void* p) : value_(Pointer{reinterpret_cast<std::uintptr_t>(p)}) {}  // NOLINT

  const Value& value() const { return value_; }
  bool isNull() const { return std::holds_alternative<Null>(value_); }

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
