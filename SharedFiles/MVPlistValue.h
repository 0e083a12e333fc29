// MVPlistValue: the property-list value model the logic works with.
//
// Settings, render descriptions and batch records are property lists; the
// logic reads and builds them through this type and never sees the codec
// (libplist) that turns them into bytes. A default-constructed value is
// "nil": the absence of a value, which every test treats as off/empty.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

class MVPlistValue {
 public:
  enum class Type { Nil, String, Integer, Real, Boolean, Date, Data, Array, Dictionary };
  using Array = std::vector<MVPlistValue>;
  using Dictionary = std::map<std::string, MVPlistValue>;
  using Data = std::vector<std::uint8_t>;
  using Date = std::chrono::system_clock::time_point;

  MVPlistValue() = default;
  MVPlistValue(const char* s);           // NOLINT: string literals read naturally as values
  MVPlistValue(std::string s);           // NOLINT
  MVPlistValue(int v);                   // NOLINT
  MVPlistValue(long v);                  // NOLINT
  MVPlistValue(long long v);             // NOLINT
  MVPlistValue(double v);                // NOLINT
  MVPlistValue(bool v);                  // NOLINT
  MVPlistValue(Date d);                  // NOLINT
  MVPlistValue(Data d);                  // NOLINT
  MVPlistValue(Array a);                 // NOLINT
  MVPlistValue(Dictionary d);            // NOLINT

  Type type() const;
  bool isNil() const { return type() == Type::Nil; }
  explicit operator bool() const { return !isNil(); }

  bool isString() const { return type() == Type::String; }
  bool isNumber() const;  // integer, real or boolean, as a number object would be
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }
  bool isData() const { return type() == Type::Data; }
  bool isDate() const { return type() == Type::Date; }

  // Typed access; nullptr when the value holds another type.
  const std::string* string() const;
  const Array* array() const;
  Array* array();
  const Dictionary* dictionary() const;
  Dictionary* dictionary();
  const Data* data() const;
  std::optional<Date> date() const;

  // Loose readings, as the platform's value objects answer them:
  // a string answers by its leading digits ("12abc" is 12, "abc" is 0),
  // a boolean is 0 or 1, anything without a number reading is 0.
  long long integerValue() const;
  double doubleValue() const;
  bool boolValue() const;
  // Length of a string (in UTF-16 code units, as the platform counts) or
  // of data, element count of an array or dictionary, 0 otherwise.
  std::size_t count() const;

  // Dictionary lookup; nil when absent or when this is no dictionary.
  const MVPlistValue& operator[](const std::string& key) const;
  // Inserts into a dictionary (turning nil into an empty dictionary).
  void set(const std::string& key, MVPlistValue value);
  // Appends to an array (turning nil into an empty array).
  void append(MVPlistValue value);

  // A readable description, as "%@" prints it in log lines.
  std::string description() const;

  bool operator==(const MVPlistValue& other) const;

 private:
  std::variant<std::monostate, std::string, long long, double, bool, Date, Data, Array, Dictionary> value_;
};

// Dates print as the platform's default description: "2024-05-01 13:45:10 +0000" in local time.
std::string MVDateDescription(MVPlistValue::Date date);
