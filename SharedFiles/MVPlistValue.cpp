#include "MVPlistValue.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

MVPlistValue::MVPlistValue(const char* s) : value_(std::string(s ? s : "")) {
  if (!s) value_ = std::monostate{};
}
MVPlistValue::MVPlistValue(std::string s) : value_(std::move(s)) {}
MVPlistValue::MVPlistValue(int v) : value_(static_cast<long long>(v)) {}
MVPlistValue::MVPlistValue(long v) : value_(static_cast<long long>(v)) {}
MVPlistValue::MVPlistValue(long long v) : value_(v) {}
MVPlistValue::MVPlistValue(double v) : value_(v) {}
MVPlistValue::MVPlistValue(bool v) : value_(v) {}
MVPlistValue::MVPlistValue(Date d) : value_(d) {}
MVPlistValue::MVPlistValue(Data d) : value_(std::move(d)) {}
MVPlistValue::MVPlistValue(Array a) : value_(std::move(a)) {}
MVPlistValue::MVPlistValue(Dictionary d) : value_(std::move(d)) {}

MVPlistValue::Type MVPlistValue::type() const { return static_cast<Type>(value_.index()); }

bool MVPlistValue::isNumber() const {
  Type t = type();
  return t == Type::Integer || t == Type::Real || t == Type::Boolean;
}

const std::string* MVPlistValue::string() const { return std::get_if<std::string>(&value_); }
const MVPlistValue::Array* MVPlistValue::array() const { return std::get_if<Array>(&value_); }
MVPlistValue::Array* MVPlistValue::array() { return std::get_if<Array>(&value_); }
const MVPlistValue::Dictionary* MVPlistValue::dictionary() const { return std::get_if<Dictionary>(&value_); }
MVPlistValue::Dictionary* MVPlistValue::dictionary() { return std::get_if<Dictionary>(&value_); }
const MVPlistValue::Data* MVPlistValue::data() const { return std::get_if<Data>(&value_); }
std::optional<MVPlistValue::Date> MVPlistValue::date() const {
  if (auto d = std::get_if<Date>(&value_)) return *d;
  return std::nullopt;
}

namespace {
// Leading-number reading of a string: optional white space, an optional
// sign, then digits; anything else stops the reading.
long long leadingInteger(const std::string& s) {
  std::size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) negative = s[i++] == '-';
  long long v = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    if (v > (INT64_MAX - 9) / 10) return negative ? INT64_MIN : INT64_MAX;
    v = v * 10 + (s[i] - '0');
  }
  return negative ? -v : v;
}

// Leading-number reading of a real: white space, an optional sign, then a
// decimal number. Independent of the C locale, which a toolkit may have set
// to one with a decimal comma.
double leadingReal(const std::string& s) {
  std::size_t i = s.find_first_not_of(" \t\r\n");
  if (i == std::string::npos) return 0.0;
  if (s[i] == '+') ++i;
  double v = 0.0;
  auto result = std::from_chars(s.data() + i, s.data() + s.size(), v, std::chars_format::general);
  return result.ec == std::errc() ? v : 0.0;
}

std::size_t utf16Length(const std::string& s) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if ((c & 0xC0) == 0x80) continue;  // continuation byte
    n += (c >= 0xF0) ? 2 : 1;          // four-byte sequences are surrogate pairs
  }
  return n;
}
}  // namespace

long long MVPlistValue::integerValue() const {
  switch (type()) {
    case Type::Integer: return std::get<long long>(value_);
    case Type::Real: {
      double d = std::get<double>(value_);
      if (std::isnan(d)) return 0;
      if (d >= 9.2e18) return INT64_MAX;
      if (d <= -9.2e18) return INT64_MIN;
      return static_cast<long long>(d);
    }
    case Type::Boolean: return std::get<bool>(value_) ? 1 : 0;
    case Type::String: return leadingInteger(std::get<std::string>(value_));
    default: return 0;
  }
}

double MVPlistValue::doubleValue() const {
  switch (type()) {
    case Type::Integer: return static_cast<double>(std::get<long long>(value_));
    case Type::Real: return std::get<double>(value_);
    case Type::Boolean: return std::get<bool>(value_) ? 1.0 : 0.0;
    case Type::String: return leadingReal(std::get<std::string>(value_));
    default: return 0.0;
  }
}

bool MVPlistValue::boolValue() const {
  if (type() == Type::String) {
    // A string is true when it starts with Y, y, T, t or a non-zero digit.
    const std::string& s = std::get<std::string>(value_);
    std::size_t i = s.find_first_not_of(" \t\r\n");
    if (i == std::string::npos) return false;
    char c = s[i];
    if (c == 'Y' || c == 'y' || c == 'T' || c == 't') return true;
    return integerValue() != 0;
  }
  if (type() == Type::Real) return doubleValue() != 0.0;
  return integerValue() != 0;
}

std::size_t MVPlistValue::count() const {
  switch (type()) {
    case Type::String: return utf16Length(std::get<std::string>(value_));
    case Type::Data: return std::get<Data>(value_).size();
    case Type::Array: return std::get<Array>(value_).size();
    case Type::Dictionary: return std::get<Dictionary>(value_).size();
    default: return 0;
  }
}

const MVPlistValue& MVPlistValue::operator[](const std::string& key) const {
  // Never destroyed: worker threads may still read it while the process exits.
  static const MVPlistValue& nil = *new MVPlistValue();
  const Dictionary* d = dictionary();
  if (!d) return nil;
  auto it = d->find(key);
  return it == d->end() ? nil : it->second;
}

void MVPlistValue::set(const std::string& key, MVPlistValue value) {
  if (isNil()) value_ = Dictionary{};
  if (Dictionary* d = dictionary()) (*d)[key] = std::move(value);
}

void MVPlistValue::append(MVPlistValue value) {
  if (isNil()) value_ = Array{};
  if (Array* a = array()) a->push_back(std::move(value));
}

std::string MVDateDescription(MVPlistValue::Date date) {
  std::time_t t = std::chrono::system_clock::to_time_t(date);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %z", &tm);
  return buf;
}

std::string MVPlistValue::description() const {
  switch (type()) {
    case Type::Nil: return "(null)";
    case Type::String: return std::get<std::string>(value_);
    case Type::Integer: return std::to_string(std::get<long long>(value_));
    case Type::Real: {
      // As "%.15g" prints it in the C locale, whatever the process locale.
      char buf[64];
      auto result = std::to_chars(buf, buf + sizeof buf, std::get<double>(value_), std::chars_format::general, 15);
      return std::string(buf, result.ptr);
    }
    case Type::Boolean: return std::get<bool>(value_) ? "1" : "0";
    case Type::Date: return MVDateDescription(std::get<Date>(value_));
    case Type::Data: {
      static const char* hex = "0123456789abcdef";
      std::string out = "<";
      const Data& d = std::get<Data>(value_);
      for (std::size_t i = 0; i < d.size(); ++i) {
        if (i && i % 4 == 0) out += ' ';
        out += hex[d[i] >> 4];
        out += hex[d[i] & 15];
      }
      return out + ">";
    }
    case Type::Array: {
      std::string out = "(\n";
      const Array& a = std::get<Array>(value_);
      for (std::size_t i = 0; i < a.size(); ++i) {
        out += "    " + a[i].description();
        out += (i + 1 < a.size()) ? ",\n" : "\n";
      }
      return out + ")";
    }
    case Type::Dictionary: {
      std::string out = "{\n";
      for (const auto& [k, v] : std::get<Dictionary>(value_)) out += "    " + k + " = " + v.description() + ";\n";
      return out + "}";
    }
  }
  return {};
}

bool MVPlistValue::operator==(const MVPlistValue& other) const { return value_ == other.value_; }
