#include "Base64.h"

#include <cstring>

namespace {

constexpr char kEncodeTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPad = '=';
constexpr std::size_t kLineLength = 72;

// Decoding classes beside the six-bit values 0..63.
constexpr std::uint8_t kInvalid = 0xFF;
constexpr std::uint8_t kSkip = 0xFE;
constexpr std::uint8_t kPadMarker = 0xFD;
constexpr std::uint8_t kZero = 0xFC;  // the NUL byte decodes as the value 0

struct DecodeTable {
  std::uint8_t entries[128];
  constexpr DecodeTable() : entries() {
    for (auto& e : entries) e = kInvalid;
    for (std::uint8_t i = 0; i < 64; ++i) entries[static_cast<unsigned char>(kEncodeTable[i])] = i;
    entries[static_cast<unsigned char>(kPad)] = kPadMarker;
    for (char c : {'\t', '\n', '\v', '\f', '\r', ' '}) entries[static_cast<unsigned char>(c)] = kSkip;
    entries[0] = kZero;
  }
};
constexpr DecodeTable kDecodeTable;

std::string replaceAll(std::string text, char from, char to) {
  for (char& c : text)
    if (c == from) c = to;
  return text;
}

std::string encode(const std::uint8_t* bytes, std::size_t length, bool wrap) {
  std::size_t size = EstimateBas64EncodedDataSize(length);
  std::vector<char> buffer(size + 1, 0);
  if (!Base64EncodeData(bytes, length, buffer.data(), &size, wrap))
    throw Base64AdditionsException("Unable to encode data!");
  return std::string(buffer.data());
}

}  // namespace

std::size_t EstimateBas64EncodedDataSize(std::size_t length) {
  std::size_t n = 4 * ((length + 2) / 3);
  return (n % kLineLength) + (n / kLineLength) * (kLineLength + 2);
}

std::size_t EstimateBas64DecodedDataSize(std::size_t length) { return 3 * ((length + 3) / 4); }

bool Base64EncodeData(const void* input, std::size_t inputLength, char* output, std::size_t* outputLength,
                      bool wrap) {
  std::size_t estimate = EstimateBas64EncodedDataSize(inputLength);
  if (*outputLength < estimate) return false;
  *outputLength = estimate;

  const auto* in = static_cast<const std::uint8_t*>(input);
  char* out = output;
  std::size_t lineLength = 0;
  auto endOfGroup = [&] {
    lineLength += 4;
    if (wrap && lineLength == kLineLength) {
      *out++ = '\r';
      *out++ = '\n';
      lineLength = 0;
    }
  };

  std::size_t i = 0;
  for (; i + 3 <= inputLength; i += 3) {
    out[0] = kEncodeTable[in[i] >> 2];
    out[1] = kEncodeTable[((in[i] & 0x03) << 4) | (in[i + 1] >> 4)];
    out[2] = kEncodeTable[((in[i + 1] & 0x0F) << 2) | (in[i + 2] >> 6)];
    out[3] = kEncodeTable[in[i + 2] & 0x3F];
    out += 4;
    endOfGroup();
  }
  std::size_t rest = inputLength - i;
  if (rest == 2) {
    out[0] = kEncodeTable[in[i] >> 2];
    out[1] = kEncodeTable[((in[i] & 0x03) << 4) | (in[i + 1] >> 4)];
    out[2] = kEncodeTable[(in[i + 1] & 0x0F) << 2];
    out[3] = kPad;
    out += 4;
    endOfGroup();
  } else if (rest == 1) {
    out[0] = kEncodeTable[in[i] >> 2];
    out[1] = kEncodeTable[(in[i] & 0x03) << 4];
    out[2] = kPad;
    out[3] = kPad;
    out += 4;
    endOfGroup();
  }
  return true;
}

bool Base64DecodeData(const void* input, std::size_t inputLength, void* output, std::size_t* outputLength) {
  if (*outputLength > 0) std::memset(output, '.', *outputLength);
  if (*outputLength < EstimateBas64DecodedDataSize(inputLength)) return false;

  const auto* in = static_cast<const std::uint8_t*>(input);
  auto* out = static_cast<std::uint8_t*>(output);
  std::size_t produced = 0;
  std::uint32_t accumulator = 0;
  int bits = 0;
  for (std::size_t i = 0; i < inputLength; ++i) {
    // Bytes above 127 lie outside the table and are skipped like any invalid byte.
    std::uint8_t value = in[i] < 128 ? kDecodeTable.entries[in[i]] : kInvalid;
    if (value == kPadMarker) break;
    if (value == kSkip || value == kInvalid) continue;
    if (value == kZero) value = 0;
    accumulator = (accumulator << 6) | value;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out[produced++] = static_cast<std::uint8_t>(accumulator >> bits);
      accumulator &= (1u << bits) - 1;
    }
  }
  *outputLength = produced;
  return true;
}

Base64Additions::Data Base64Additions::decodeBase64ForString(const std::string& text) {
  for (unsigned char c : text)
    if (c > 127) return {};
  std::size_t size = EstimateBas64DecodedDataSize(text.size());
  Data buffer(size, 0);
  if (!Base64DecodeData(text.data(), text.size(), buffer.data(), &size))
    throw Base64AdditionsException("Unable to decode data!");
  buffer.resize(size);
  return buffer;
}

Base64Additions::Data Base64Additions::decodeWebSafeBase64ForString(const std::string& text) {
  return decodeBase64ForString(replaceAll(replaceAll(text, '-', '+'), '_', '/'));
}

std::string Base64Additions::encodeBase64ForData(const Data& data) { return encode(data.data(), data.size(), false); }

std::string Base64Additions::encodeBase64ForData(const std::string& bytes) {
  return encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), false);
}

std::string Base64Additions::encodeWrappedBase64ForData(const Data& data) {
  return encode(data.data(), data.size(), true);
}

std::string Base64Additions::encodeWebSafeBase64ForData(const Data& data) {
  return replaceAll(replaceAll(encodeBase64ForData(data), '+', '-'), '/', '_');
}
