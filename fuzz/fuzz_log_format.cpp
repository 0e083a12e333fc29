// The log's format engine with hostile "%" sequences. In the agent the
// formats are literals, but file names, batch names and server replies
// arrive as arguments, and the log formats its message a second time
// (MVLog::escapeTextForLogging, then MVFormat with no arguments), so any
// text can end up as a format.
//
// Input: the format, then arguments, each after a NUL byte. An argument's
// first character picks its kind: 'i' a signed and 'u' an unsigned integer
// (decimal text), 'd' a real, 'n' nil, 'p' an address, 'v' a property-list
// string; anything else is a string (after 's', or as it stands).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "MVFormat.h"
#include "MVLog.h"

namespace {

MVFormatArg argumentFrom(std::string_view piece) {
  if (piece.empty()) return MVFormatArg(std::string());
  const std::string rest(piece.substr(1));
  switch (piece.front()) {
    case 'i': return MVFormatArg(std::strtoll(rest.c_str(), nullptr, 10));
    case 'u': return MVFormatArg(std::strtoull(rest.c_str(), nullptr, 10));
    case 'd': return MVFormatArg(std::strtod(rest.c_str(), nullptr));
    case 'n': return MVFormatArg();
    case 'p': return MVFormatArg(reinterpret_cast<const void*>(std::strtoull(rest.c_str(), nullptr, 16)));
    case 'v': return MVFormatArg(MVPlistValue(rest));
    case 's': return MVFormatArg(rest);
    default: return MVFormatArg(std::string(piece));
  }
}

// What MVLog does with a message that already went through one pass.
std::string secondPass(const std::string& message) {
  return MVFormat(MVLog::escapeTextForLogging(message), {});
}

}  // namespace

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input = quillon_fuzz::asText(data, size);
  const std::size_t formatEnd = input.find('\0');
  const std::string format(input.substr(0, formatEnd));
  std::vector<MVFormatArg> arguments;
  std::vector<std::string> strings;
  for (std::size_t start = formatEnd; start != std::string_view::npos && start < input.size();) {
    const std::size_t end = input.find('\0', start + 1);
    const std::string_view piece = input.substr(start + 1, end == std::string_view::npos ? end : end - start - 1);
    arguments.push_back(argumentFrom(piece));
    strings.emplace_back(piece);
    start = end;
  }

  // The format as given, then as the log formats it: escaped, then again.
  (void)MVFormat(format, arguments);
  (void)secondPass(MVFormat(MVLog::escapeTextForLogging(format), arguments));

  // The common case: a literal format whose argument carries the "%".
  for (const std::string& text : strings) {
    const MVFormatArg argument[] = {MVFormatArg(text)};
    (void)secondPass(MVFormat(MVLog::escapeTextForLogging("%@ was modified recently"), argument));
  }
  return 0;
}
