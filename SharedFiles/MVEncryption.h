// MVEncryption: the small AES routine that keeps the text-message telephone
// number unreadable in the settings file.
//
// The preferences application encrypts the number under a passphrase shared
// with this program (kTextMessagePassphrase); the agent decrypts it before it
// builds the gateway address. The format is plain AES-256 in electronic
// codebook mode: the concatenation of 16-byte blocks, no header, no
// initialisation vector, no length field, plaintext padded with spaces (0x20).
// Both sides must derive the key the same way (see AESEncryptData), or a
// stored number cannot be read.
//
// The block function is OpenSSL's AES. Stateless; every operation may be
// called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "MVPlistValue.h"

// An AES key schedule, set up for either encryption or decryption by
// rijndaelSetupEncrypt / rijndaelSetupDecrypt. Owns the cipher context.
class MVAESKeySchedule {
 public:
  MVAESKeySchedule();
  ~MVAESKeySchedule();
  MVAESKeySchedule(MVAESKeySchedule&&) noexcept;
  MVAESKeySchedule& operator=(MVAESKeySchedule&&) noexcept;
  MVAESKeySchedule(const MVAESKeySchedule&) = delete;
  MVAESKeySchedule& operator=(const MVAESKeySchedule&) = delete;

  // True once a setup call has succeeded.
  bool isReady() const { return rounds_ > 0; }
  int rounds() const { return rounds_; }
  bool encrypts() const { return encrypts_; }

 private:
  friend int rijndaelSetupEncrypt(MVAESKeySchedule&, std::span<const std::uint8_t>, int);
  friend int rijndaelSetupDecrypt(MVAESKeySchedule&, std::span<const std::uint8_t>, int);
  friend bool rijndaelEncrypt(MVAESKeySchedule&, const std::uint8_t*, std::uint8_t*);
  friend bool rijndaelDecrypt(MVAESKeySchedule&, const std::uint8_t*, std::uint8_t*);
  int setup(std::span<const std::uint8_t> key, int keyBits, bool encrypt);

  struct Context;
  std::unique_ptr<Context> context_;
  int rounds_ = 0;
  bool encrypts_ = true;
};

// AES block cipher (FIPS 197). The setup operations take the key bytes and
// the key size in bits (128, 192 or 256; the key must hold at least
// keyBits / 8 bytes) and return the number of rounds (10, 12 or 14), or 0
// when the key cannot be used.
[[nodiscard]] int rijndaelSetupEncrypt(MVAESKeySchedule& schedule, std::span<const std::uint8_t> key, int keyBits);
[[nodiscard]] int rijndaelSetupDecrypt(MVAESKeySchedule& schedule, std::span<const std::uint8_t> key, int keyBits);
// Encrypt or decrypt one 16-byte block (input and output may be the same
// buffer). False when the schedule was not set up for that direction.
bool rijndaelEncrypt(MVAESKeySchedule& schedule, const std::uint8_t* plaintext, std::uint8_t* ciphertext);
bool rijndaelDecrypt(MVAESKeySchedule& schedule, const std::uint8_t* ciphertext, std::uint8_t* plaintext);

class MVEncryption {
 public:
  using Data = MVPlistValue::Data;

  static constexpr std::size_t kBlockSize = 16;
  static constexpr std::size_t kKeySize = 32;

  // Shared with the preferences application, which encrypts the
  // "txtMessagePhoneNumber" setting under it.
  static constexpr std::string_view kTextMessagePassphrase = "Kp3VtY8wQm5Lr2Hn7Zc4";

  MVEncryption() = delete;

  // Key: the first 32 bytes of the passphrase's UTF-8 text; a shorter
  // passphrase is followed by zero bytes up to 32. Data is cut into 16-byte
  // blocks, the last one filled up with spaces, and each block is encrypted
  // on its own. Empty data gives empty output.
  [[nodiscard]] static Data AESEncryptData(std::span<const std::uint8_t> data, std::string_view withPassphrase);

  // The inverse, block by block; padding spaces are left in place. Input
  // whose length is not a multiple of 16 is not valid: its final partial
  // block is still decrypted as a whole block (its missing bytes are those of
  // the previous input block) and a line is written to the log.
  [[nodiscard]] static Data AESDecryptData(std::span<const std::uint8_t> data, std::string_view withPassphrase);

  // The 32 key bytes derived from a passphrase by the rule above.
  static std::array<std::uint8_t, kKeySize> keyFromPassphrase(std::string_view passphrase);
};
