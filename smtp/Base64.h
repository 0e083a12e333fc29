// Base64 (RFC 4648 alphabet) for the mail transport: the plain buffer
// functions used for SMTP authentication, and the convenience operations on
// byte data (`Base64Additions`) that callers use to encode part bodies.
//
// The buffer functions never throw; they report an output buffer that is too
// small by returning false. The `Base64Additions` operations throw
// `Base64AdditionsException` (name "NSData+Base64AdditionsException") when the
// underlying function fails; with the buffers they size themselves this does
// not happen in practice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// Room for the encoded text of `length` bytes. It always reserves a CR LF
// after every full 72-character line, wrapped or not.
std::size_t EstimateBas64EncodedDataSize(std::size_t length);
// Room for the bytes decoded from `length` characters.
std::size_t EstimateBas64DecodedDataSize(std::size_t length);

// Encodes `inputLength` bytes into `output`. On entry `*outputLength` is the
// buffer size; on success it is set to the estimate (which can exceed the
// characters written when not wrapping). Nothing is written after the last
// character, so callers pass a zeroed buffer one byte longer than the
// estimate to get a terminated text. With `wrap`, CR LF follows every
// 72-character line.
[[nodiscard]] bool Base64EncodeData(const void* input, std::size_t inputLength, char* output,
                                    std::size_t* outputLength, bool wrap);

// Decodes into `output`, which is first filled with '.' bytes over its whole
// given length. Decoding stops at the first '='; blanks and line breaks and
// bytes outside the alphabet are skipped; a NUL byte counts as the value 0.
// On success `*outputLength` is the number of bytes produced.
[[nodiscard]] bool Base64DecodeData(const void* input, std::size_t inputLength, void* output,
                                    std::size_t* outputLength);

class Base64AdditionsException : public std::runtime_error {
 public:
  explicit Base64AdditionsException(const std::string& reason) : std::runtime_error(reason) {}
  static const char* name() { return "NSData+Base64AdditionsException"; }
};

class Base64Additions {
 public:
  using Data = std::vector<std::uint8_t>;

  // A text that is not pure ASCII decodes to no bytes.
  static Data decodeBase64ForString(const std::string& text);
  // The URL-safe alphabet: '-' for '+', '_' for '/'.
  static Data decodeWebSafeBase64ForString(const std::string& text);

  static std::string encodeBase64ForData(const Data& data);
  static std::string encodeBase64ForData(const std::string& bytes);
  // Wrapped at 72 characters with CR LF.
  static std::string encodeWrappedBase64ForData(const Data& data);
  // '+' becomes '-', '/' becomes '_'; the '=' padding stays.
  static std::string encodeWebSafeBase64ForData(const Data& data);
};
