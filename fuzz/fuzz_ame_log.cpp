// Adobe Media Encoder's queue log ("AMEEncodingLog.txt"), which is written in
// UTF-16 little-endian. The agent decodes the whole file to find the
// "Queue Stopped" line, so odd lengths and broken surrogate pairs must fail
// cleanly, and what decodes must be valid UTF-8.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "MVTaskEx.h"

namespace {

bool isValidUTF8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    unsigned char lead = static_cast<unsigned char>(text[i]);
    std::size_t length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xF8) == 0xF0 ? 4 : 0;
    if (length == 0 || i + length > text.size()) return false;
    std::uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
      unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    static constexpr std::uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kShortest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

}  // namespace

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::uint8_t> little(data, data + size);
  std::optional<std::string> text = MVDecodeString(little, kMVUTF16LittleEndianStringEncoding);
  if (size % 2 != 0 && text) std::abort();
  if (text && !isValidUTF8(*text)) std::abort();

  // The same units written big-endian decode to the same text.
  std::vector<std::uint8_t> big = little;
  for (std::size_t i = 0; i + 1 < big.size(); i += 2) std::swap(big[i], big[i + 1]);
  if (MVDecodeString(big, kMVUTF16BigEndianStringEncoding) != text) std::abort();

  // With a little-endian byte-order mark in front, the encoding that
  // follows the mark reads the same units.
  std::vector<std::uint8_t> marked = {0xFF, 0xFE};
  marked.insert(marked.end(), little.begin(), little.end());
  if (MVDecodeString(marked, kMVUnicodeStringEncoding) != text) std::abort();
  return 0;
}
