#include "MVEncryption.h"


#include <algorithm>
#include <cstring>

#include "MVLog.h"
#include "MVOpenSSL.h"

namespace {

struct CipherContextFree {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

const EVP_CIPHER* ecbCipherForKeyBits(int keyBits) {
  switch (keyBits) {
    case 128: return EVP_aes_128_ecb();
    case 192: return EVP_aes_192_ecb();
    case 256: return EVP_aes_256_ecb();
    default: return nullptr;
  }
}

// Rounds per key size, as FIPS 197 defines them.
int roundsForKeyBits(int keyBits) { return keyBits / 32 + 6; }

// Wipes a key or plaintext copy on every way out of a scope.
template <typename Buffer>
class WipeOnExit {
 public:
  explicit WipeOnExit(Buffer& buffer) : buffer_(buffer) {}
  ~WipeOnExit() { MVWipeMemory(buffer_.data(), buffer_.size()); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  Buffer& buffer_;
};

}  // namespace

struct MVAESKeySchedule::Context {
  std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree> cipher;
};

MVAESKeySchedule::MVAESKeySchedule() = default;
MVAESKeySchedule::~MVAESKeySchedule() = default;
MVAESKeySchedule::MVAESKeySchedule(MVAESKeySchedule&&) noexcept = default;
MVAESKeySchedule& MVAESKeySchedule::operator=(MVAESKeySchedule&&) noexcept = default;

namespace {

bool runBlock(EVP_CIPHER_CTX* cipher, const std::uint8_t* in, std::uint8_t* out) {
  std::uint8_t block[MVEncryption::kBlockSize];
  int produced = 0;
  bool ok = EVP_CipherUpdate(cipher, block, &produced, in, static_cast<int>(sizeof block)) == 1 &&
            produced == static_cast<int>(sizeof block);
  if (ok) std::memcpy(out, block, sizeof block);
  MVWipeMemory(block, sizeof block);
  return ok;
}

}  // namespace

// ECB with padding off is the bare block function: each update of 16 bytes
// yields exactly 16 bytes at once.
int MVAESKeySchedule::setup(std::span<const std::uint8_t> key, int keyBits, bool encrypt) {
  rounds_ = 0;
  encrypts_ = encrypt;
  context_.reset();
  if (!MVLoadOpenSSL()) return 0;
  const EVP_CIPHER* cipher = ecbCipherForKeyBits(keyBits);
  if (!cipher || key.size() < static_cast<std::size_t>(keyBits / 8)) return 0;
  auto made = std::make_unique<Context>();
  made->cipher.reset(EVP_CIPHER_CTX_new());
  if (!made->cipher) return 0;
  if (EVP_CipherInit_ex(made->cipher.get(), cipher, nullptr, key.data(), nullptr, encrypt ? 1 : 0) != 1) return 0;
  EVP_CIPHER_CTX_set_padding(made->cipher.get(), 0);
  context_ = std::move(made);
  rounds_ = roundsForKeyBits(keyBits);
  return rounds_;
}

int rijndaelSetupEncrypt(MVAESKeySchedule& schedule, std::span<const std::uint8_t> key, int keyBits) {
  return schedule.setup(key, keyBits, true);
}

int rijndaelSetupDecrypt(MVAESKeySchedule& schedule, std::span<const std::uint8_t> key, int keyBits) {
  return schedule.setup(key, keyBits, false);
}

bool rijndaelEncrypt(MVAESKeySchedule& schedule, const std::uint8_t* plaintext, std::uint8_t* ciphertext) {
  if (!schedule.isReady() || !schedule.encrypts_) return false;
  return runBlock(schedule.context_->cipher.get(), plaintext, ciphertext);
}

bool rijndaelDecrypt(MVAESKeySchedule& schedule, const std::uint8_t* ciphertext, std::uint8_t* plaintext) {
  if (!schedule.isReady() || schedule.encrypts_) return false;
  return runBlock(schedule.context_->cipher.get(), ciphertext, plaintext);
}

std::array<std::uint8_t, MVEncryption::kKeySize> MVEncryption::keyFromPassphrase(std::string_view passphrase) {
  // The preferences application copies 32 bytes from the start of the C
  // string, running past its terminating zero; zero bytes are what a
  // portable writer can reproduce, so both sides fill the key with them.
  std::array<std::uint8_t, kKeySize> key{};
  std::copy_n(passphrase.begin(), std::min(passphrase.size(), kKeySize), key.begin());
  return key;
}

namespace {

// The key exists only while the schedule is made from it.
bool setUpSchedule(MVAESKeySchedule& schedule, std::string_view passphrase,
                   int (*setUp)(MVAESKeySchedule&, std::span<const std::uint8_t>, int), const char* operation) {
  auto key = MVEncryption::keyFromPassphrase(passphrase);
  WipeOnExit wipeKey(key);
  if (setUp(schedule, key, 256) != 0) return true;
  MVLog::appendLog("%s: the AES-256 key schedule could not be set up", operation);
  return false;
}

}  // namespace

MVEncryption::Data MVEncryption::AESEncryptData(std::span<const std::uint8_t> data, std::string_view withPassphrase) {
  Data output;
  if (data.empty()) return output;

  MVAESKeySchedule schedule;
  if (!setUpSchedule(schedule, withPassphrase, rijndaelSetupEncrypt, "AESEncryptData")) return output;

  output.resize((data.size() + kBlockSize - 1) / kBlockSize * kBlockSize);
  std::array<std::uint8_t, kBlockSize> block;
  WipeOnExit wipeBlock(block);
  for (std::size_t offset = 0; offset < data.size(); offset += kBlockSize) {
    std::size_t length = std::min(kBlockSize, data.size() - offset);
    block.fill(' ');
    std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(offset), length, block.begin());
    if (!rijndaelEncrypt(schedule, block.data(), output.data() + offset)) {
      MVLog::appendLog("AESEncryptData: AES encryption failed");
      return {};
    }
  }
  return output;
}

MVEncryption::Data MVEncryption::AESDecryptData(std::span<const std::uint8_t> data, std::string_view withPassphrase) {
  Data output;
  if (data.empty()) return output;

  MVAESKeySchedule schedule;
  if (!setUpSchedule(schedule, withPassphrase, rijndaelSetupDecrypt, "AESDecryptData")) return output;
  if (data.size() % kBlockSize != 0)
    MVLog::appendLog("AESDecryptData: %lu bytes are not a whole number of %lu-byte AES blocks; the last block is not valid",
                     data.size(), kBlockSize);

  output.resize((data.size() + kBlockSize - 1) / kBlockSize * kBlockSize);
  // One input buffer for all blocks: a short final block keeps the tail of
  // the block before it, as the format has always behaved.
  std::array<std::uint8_t, kBlockSize> block{};
  for (std::size_t offset = 0; offset < data.size(); offset += kBlockSize) {
    std::size_t length = std::min(kBlockSize, data.size() - offset);
    std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(offset), length, block.begin());
    if (!rijndaelDecrypt(schedule, block.data(), output.data() + offset)) {
      MVLog::appendLog("AESDecryptData: AES decryption failed");
      return {};
    }
  }
  return output;
}
