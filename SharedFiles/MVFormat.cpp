// Temporary minimal engine; replaced by the full one.
#include "MVFormat.h"

#include <cstdio>

MVFormatArg::MVFormatArg(const MVPlistValue& v) {
  if (!v.isNil()) value_ = v.description();
}

std::string MVFormat(std::string_view format, std::span<const MVFormatArg> args) {
  std::string out;
  std::size_t next = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 >= format.size()) { out += format[i]; continue; }
    char c = format[++i];
    if (c == '%') { out += '%'; continue; }
    while (i < format.size() && std::string_view("0123456789.-+ lhq").find(format[i]) != std::string_view::npos) ++i;
    if (next >= args.size()) { out += "(null)"; continue; }
    const auto& v = args[next++].value();
    if (auto s = std::get_if<std::string>(&v)) out += *s;
    else if (auto n = std::get_if<long long>(&v)) out += std::to_string(*n);
    else if (auto u = std::get_if<unsigned long long>(&v)) out += std::to_string(*u);
    else if (auto d = std::get_if<double>(&v)) out += std::to_string(*d);
    else out += "(null)";
  }
  return out;
}
