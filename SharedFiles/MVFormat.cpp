#include "MVFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

MVFormatArg::MVFormatArg(const MVPlistValue& v) {
  switch (v.type()) {
    case MVPlistValue::Type::Nil: break;
    case MVPlistValue::Type::String: value_ = *v.string(); break;
    case MVPlistValue::Type::Integer:
    case MVPlistValue::Type::Boolean: value_ = v.integerValue(); break;
    case MVPlistValue::Type::Real: value_ = v.doubleValue(); break;
    default: value_ = v; break;
  }
}

namespace {

// Widths and precisions beyond this are nonsense from a hostile format.
constexpr int kMaxWidth = 100000;

// One parsed conversion: "%[n$][flags][width][.precision][length]conversion".
struct Directive {
  bool left = false, plus = false, space = false, alternate = false, zero = false;
  int width = 0;
  int precision = -1;  // -1: none given
  std::string length;  // "", "h", "hh", "l", "ll", "q", "L", "j", "z", "t"
  char conversion = 0;
};

std::string describeDouble(double d) {
  // A number object describes itself in its shortest exact form ("0.5", "3").
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d < 0 ? "-inf" : "inf";
  char buf[64];
  auto result = std::to_chars(buf, buf + sizeof buf, d);
  return std::string(buf, result.ptr);
}

std::string describe(const MVFormatArg::Value& v) {
  if (std::holds_alternative<MVFormatArg::Null>(v)) return "(null)";
  if (auto n = std::get_if<long long>(&v)) return std::to_string(*n);
  if (auto u = std::get_if<unsigned long long>(&v)) return std::to_string(*u);
  if (auto d = std::get_if<double>(&v)) return describeDouble(*d);
  if (auto s = std::get_if<std::string>(&v)) return *s;
  if (auto p = std::get_if<MVFormatArg::Pointer>(&v)) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(p->address));
    return buf;
  }
  return std::get<MVPlistValue>(v).description();
}

long long clampToInteger(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2e18) return std::numeric_limits<long long>::max();
  if (d <= -9.2e18) return std::numeric_limits<long long>::min();
  return static_cast<long long>(d);
}

// The integer reading of any argument: negative flag and magnitude, so that
// values beyond the range of long long survive.
struct IntegerReading {
  bool negative = false;
  unsigned long long magnitude = 0;
};

IntegerReading fromSigned(long long n) {
  if (n >= 0) return {false, static_cast<unsigned long long>(n)};
  return {true, static_cast<unsigned long long>(-(n + 1)) + 1};
}

IntegerReading readInteger(const MVFormatArg::Value& v) {
  if (auto n = std::get_if<long long>(&v)) return fromSigned(*n);
  if (auto u = std::get_if<unsigned long long>(&v)) return {false, *u};
  if (auto d = std::get_if<double>(&v)) return fromSigned(clampToInteger(*d));
  if (auto s = std::get_if<std::string>(&v)) return fromSigned(MVPlistValue(*s).integerValue());
  if (auto p = std::get_if<MVFormatArg::Pointer>(&v)) return {false, p->address};
  if (auto pv = std::get_if<MVPlistValue>(&v)) return fromSigned(pv->integerValue());
  return {};
}

double readDouble(const MVFormatArg::Value& v) {
  if (auto n = std::get_if<long long>(&v)) return static_cast<double>(*n);
  if (auto u = std::get_if<unsigned long long>(&v)) return static_cast<double>(*u);
  if (auto d = std::get_if<double>(&v)) return *d;
  if (auto s = std::get_if<std::string>(&v)) return MVPlistValue(*s).doubleValue();
  if (auto p = std::get_if<MVFormatArg::Pointer>(&v)) return static_cast<double>(p->address);
  if (auto pv = std::get_if<MVPlistValue>(&v)) return pv->doubleValue();
  return 0.0;
}

// Number of bits the length modifier asks for; 0 means "as wide as the value".
int lengthBits(const std::string& length) {
  if (length == "hh") return 8;
  if (length == "h") return 16;
  if (length.empty()) return 32;
  return 64;
}

void appendUTF8(std::string& out, char32_t c) {
  if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;  // no valid encoding
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

std::size_t characterCount(std::string_view s) {
  std::size_t n = 0;
  for (char c : s) n += isContinuation(c) ? 0 : 1;
  return n;
}

// The first `count` characters of `s`, never splitting a UTF-8 sequence.
std::string_view prefixCharacters(std::string_view s, std::size_t count) {
  std::size_t i = 0, seen = 0;
  while (i < s.size()) {
    if (!isContinuation(s[i]) && seen++ == count) break;
    ++i;
  }
  return s.substr(0, i);
}

void pad(std::string& out, std::string_view body, const Directive& directive) {
  std::size_t length = characterCount(body);
  std::size_t fill = directive.width > 0 && static_cast<std::size_t>(directive.width) > length
                         ? static_cast<std::size_t>(directive.width) - length : 0;
  if (!directive.left) out.append(fill, ' ');
  out += body;
  if (directive.left) out.append(fill, ' ');
}

// The same field width and side, without flags or precision.
Directive widthOnly(const Directive& directive) {
  Directive plain;
  plain.left = directive.left;
  plain.width = directive.width;
  return plain;
}

void formatText(std::string& out, const std::string& text, const Directive& directive) {
  std::string_view body = text;
  if (directive.precision >= 0) body = prefixCharacters(body, static_cast<std::size_t>(directive.precision));
  pad(out, body, directive);
}

void formatInteger(std::string& out, const MVFormatArg::Value& v, const Directive& directive) {
  const char conv = directive.conversion;
  const bool isSigned = conv == 'd' || conv == 'i' || conv == 'D';
  IntegerReading n = readInteger(v);
  int bits = lengthBits(directive.length);
  if (conv == 'D' || conv == 'U' || conv == 'O') bits = 64;
  if (isSigned) {
    // An explicit short length wraps as the C conversion would.
    if (bits == 16 || bits == 8) {
      long long value = n.negative ? -static_cast<long long>(n.magnitude - 1) - 1
                                   : static_cast<long long>(n.magnitude);
      n = fromSigned(bits == 8 ? static_cast<long long>(static_cast<signed char>(value))
                               : static_cast<long long>(static_cast<short>(value)));
    }
  } else {
    unsigned long long value = n.negative ? 0 - n.magnitude : n.magnitude;
    // A negative value prints its two's complement at the width asked for;
    // a positive one is never cut short unless a short length is explicit.
    if (bits < 64 && (n.negative || bits < 32)) value &= (1ULL << bits) - 1;
    n = {false, value};
  }

  std::string digits;
  const unsigned base = (conv == 'x' || conv == 'X') ? 16 : (conv == 'o' || conv == 'O') ? 8 : 10;
  const char* alphabet = conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  for (unsigned long long m = n.magnitude; m; m /= base) digits.insert(digits.begin(), alphabet[m % base]);
  if (directive.precision >= 0) {
    if (static_cast<std::size_t>(directive.precision) > digits.size())
      digits.insert(0, static_cast<std::size_t>(directive.precision) - digits.size(), '0');
  } else if (digits.empty()) {
    digits = "0";
  }
  if (directive.alternate && base == 8 && (digits.empty() || digits[0] != '0')) digits.insert(0, 1, '0');

  std::string prefix;
  if (n.negative) prefix = "-";
  else if (isSigned && directive.plus) prefix = "+";
  else if (isSigned && directive.space) prefix = " ";
  if (directive.alternate && base == 16 && n.magnitude != 0) prefix += conv == 'X' ? "0X" : "0x";

  if (directive.zero && !directive.left && directive.precision < 0) {
    std::size_t length = prefix.size() + digits.size();
    if (static_cast<std::size_t>(directive.width) > length)
      digits.insert(0, static_cast<std::size_t>(directive.width) - length, '0');
  }
  pad(out, prefix + digits, directive);
}

void formatDouble(std::string& out, double d, const Directive& directive) {
  std::string fmt = "%";
  if (directive.left) fmt += '-';
  if (directive.plus) fmt += '+';
  if (directive.space) fmt += ' ';
  if (directive.alternate) fmt += '#';
  if (directive.zero) fmt += '0';
  if (directive.width > 0) fmt += std::to_string(directive.width);
  if (directive.precision >= 0) {
    fmt += '.';
    fmt += std::to_string(directive.precision);
  }
  fmt += directive.conversion;
  int size = std::snprintf(nullptr, 0, fmt.c_str(), d);
  if (size <= 0) return;
  std::string buf(static_cast<std::size_t>(size) + 1, '\0');
  std::snprintf(buf.data(), buf.size(), fmt.c_str(), d);
  buf.resize(static_cast<std::size_t>(size));
  out += buf;
}

void formatCharacter(std::string& out, const MVFormatArg::Value& v, const Directive& directive) {
  std::string body;
  if (auto s = std::get_if<std::string>(&v)) {
    // A string stands for its first character.
    body = std::string(prefixCharacters(*s, 1));
  } else {
    IntegerReading n = readInteger(v);
    unsigned long long code = n.negative ? 0 - n.magnitude : n.magnitude;
    if (directive.conversion == 'c') code &= 0xFF;                          // a C char
    else if (directive.length.empty() || directive.length == "h") code &= 0xFFFF;  // one UTF-16 unit
    appendUTF8(body, static_cast<char32_t>(code & 0x1FFFFF));
  }
  pad(out, body, directive);
}

std::string pointerText(const MVFormatArg::Value& v) {
  IntegerReading n = readInteger(v);
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx", n.negative ? 0 - n.magnitude : n.magnitude);
  return buf;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int readNumber(std::string_view format, std::size_t& i) {
  const long long kLimit = kMaxWidth;
  long long n = 0;
  while (i < format.size() && isDigit(format[i])) {
    if (n <= kLimit) n = n * 10 + (format[i] - '0');
    ++i;
  }
  return static_cast<int>(std::min(n, kLimit));
}

class Formatter {
 public:
  explicit Formatter(std::span<const MVFormatArg> args) : args_(args) {}

  // The argument at `index` (0-based), or nullptr when there is none.
  const MVFormatArg* argument(std::size_t index) const {
    return index < args_.size() ? &args_[index] : nullptr;
  }
  const MVFormatArg* next() { return argument(next_++); }

  std::string run(std::string_view format) {
    std::string out;
    out.reserve(format.size() + 16);
    std::size_t i = 0;
    while (i < format.size()) {
      std::size_t percent = format.find('%', i);
      if (percent == std::string_view::npos) {
        out += format.substr(i);
        break;
      }
      out += format.substr(i, percent - i);
      i = conversion(format, percent, out);
    }
    return out;
  }

 private:
  // Formats the conversion starting at `start` (a "%") and returns the index after it.
  std::size_t conversion(std::string_view format, std::size_t start, std::string& out) {
    Directive directive;
    std::size_t i = start + 1;

    std::optional<std::size_t> position;
    {
      std::size_t j = i;
      int n = readNumber(format, j);
      if (j > i && j < format.size() && format[j] == '$' && n > 0) {
        position = static_cast<std::size_t>(n - 1);
        i = j + 1;
      }
    }
    for (; i < format.size(); ++i) {
      char c = format[i];
      if (c == '-') directive.left = true;
      else if (c == '+') directive.plus = true;
      else if (c == ' ') directive.space = true;
      else if (c == '#') directive.alternate = true;
      else if (c == '0') directive.zero = true;
      else if (c == '\'') continue;  // grouping: accepted, not applied
      else break;
    }
    if (i < format.size() && format[i] == '*') {
      ++i;
      const MVFormatArg* w = next();
      IntegerReading n = w ? readInteger(w->value()) : IntegerReading{};
      if (n.negative) directive.left = true;
      directive.width = static_cast<int>(std::min<unsigned long long>(n.magnitude, kMaxWidth));
    } else {
      directive.width = readNumber(format, i);
    }
    if (i < format.size() && format[i] == '.') {
      ++i;
      if (i < format.size() && format[i] == '*') {
        ++i;
        const MVFormatArg* p = next();
        IntegerReading n = p ? readInteger(p->value()) : IntegerReading{};
        directive.precision =
            n.negative ? -1 : static_cast<int>(std::min<unsigned long long>(n.magnitude, kMaxWidth));
      } else {
        directive.precision = readNumber(format, i);
      }
    }
    while (i < format.size() && std::string_view("hlqLjzt").find(format[i]) != std::string_view::npos)
      directive.length += format[i++];
    if (i >= format.size()) {
      out += format.substr(start);  // an unfinished conversion stays as written
      return format.size();
    }
    directive.conversion = format[i++];

    if (directive.conversion == '%') {
      out += '%';
      return i;
    }
    static constexpr std::string_view known = "@dDiuUoOxXfFeEgGaAcCsSp";
    if (known.find(directive.conversion) == std::string_view::npos) {
      out += format.substr(start, i - start);
      return i;
    }

    const MVFormatArg* arg = position ? argument(*position) : next();
    if (!arg) {
      formatText(out, "(null)", widthOnly(directive));
      return i;
    }
    const MVFormatArg::Value& v = arg->value();
    switch (directive.conversion) {
      case '@': case 's': case 'S':
        formatText(out, describe(v), directive);
        break;
      case 'c': case 'C':
        formatCharacter(out, v, directive);
        break;
      case 'p':
        formatText(out, pointerText(v), widthOnly(directive));
        break;
      case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
        formatDouble(out, readDouble(v), directive);
        break;
      default:
        formatInteger(out, v, directive);
        break;
    }
    return i;
  }

  std::span<const MVFormatArg> args_;
  std::size_t next_ = 0;
};

}  // namespace

std::string MVFormat(std::string_view format, std::span<const MVFormatArg> args) {
  return Formatter(args).run(format);
}
