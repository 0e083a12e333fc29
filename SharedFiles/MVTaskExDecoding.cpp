// Decoding of program output into UTF-8 for the string forms of MVTaskEx.
#include "MVTaskEx.h"

namespace {

using Data = MVTaskEx::Data;

void appendUTF8(std::string& out, std::uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

bool isValidUTF8(const Data& data) {
  std::size_t i = 0;
  while (i < data.size()) {
    std::uint8_t lead = data[i];
    std::size_t length;
    std::uint32_t code, minimum;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, code = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, code = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, code = lead & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (i + length > data.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((data[i + k] & 0xC0) != 0x80) return false;
      code = (code << 6) | (data[i + k] & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

std::optional<std::string> decodeUTF16(const Data& data, bool bigEndian, bool honourBOM) {
  if (data.size() % 2 != 0) return std::nullopt;
  std::size_t i = 0;
  if (honourBOM && data.size() >= 2) {
    if (data[0] == 0xFE && data[1] == 0xFF) {
      bigEndian = true;
      i = 2;
    } else if (data[0] == 0xFF && data[1] == 0xFE) {
      bigEndian = false;
      i = 2;
    }
  }
  auto unit = [&](std::size_t at) -> std::uint32_t {
    return bigEndian ? (data[at] << 8 | data[at + 1]) : (data[at + 1] << 8 | data[at]);
  };
  std::string out;
  for (; i < data.size(); i += 2) {
    std::uint32_t code = unit(i);
    if (code >= 0xD800 && code <= 0xDBFF) {
      if (i + 3 >= data.size()) return std::nullopt;
      std::uint32_t low = unit(i + 2);
      if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    } else if (code >= 0xDC00 && code <= 0xDFFF) {
      return std::nullopt;
    }
    appendUTF8(out, code);
  }
  return out;
}

}  // namespace

std::optional<std::string> MVDecodeString(const std::vector<std::uint8_t>& data, MVStringEncoding encoding) {
  switch (encoding) {
    case kMVASCIIStringEncoding:
    case kMVISOLatin1StringEncoding: {
      std::string out;
      out.reserve(data.size());
      for (std::uint8_t byte : data) appendUTF8(out, byte);
      return out;
    }
    case kMVUTF8StringEncoding:
      if (!isValidUTF8(data)) return std::nullopt;
      return std::string(data.begin(), data.end());
    case kMVUnicodeStringEncoding:
      return decodeUTF16(data, true, true);
    case kMVUTF16BigEndianStringEncoding:
      return decodeUTF16(data, true, false);
    case kMVUTF16LittleEndianStringEncoding:
      return decodeUTF16(data, false, false);
  }
  return std::nullopt;
}
