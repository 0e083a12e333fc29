// MVEncryption against an independent reference: the openssl command-line tool.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVEncryption.h"
#include "TestSupport.h"

namespace {

using Data = MVEncryption::Data;

Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }
std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

std::string hexOf(std::span<const std::uint8_t> bytes) {
  std::string hex;
  for (auto byte : bytes) hex += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
  return hex;
}

Data fromHex(const std::string& hex) {
  Data bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

// `openssl enc` in raw ECB mode on `plaintext` (whose length must be a
// multiple of 16) with the given key, as lowercase hex.
std::string opensslEncryptHex(const std::string& plaintext, std::span<const std::uint8_t> key) {
  std::string file = quillon_test::makeTempDir("aes") + "/plain";
  quillon_test::writeFile(file, plaintext);
  return quillon_test::shellOutput("openssl enc -aes-256-ecb -nopad -K " + hexOf(key) + " -in " + file +
                                   " | od -An -v -tx1 | tr -d ' \\n'");
}

TEST(MVEncryptionTest, EncryptsLikeOpensslWithSpacePaddingAndTheKeyRule) {
  const std::string number = "+1 (555) 010-0000";  // 17 bytes: a full block and one byte
  const auto key = MVEncryption::keyFromPassphrase(MVEncryption::kTextMessagePassphrase);

  Data encrypted = MVEncryption::AESEncryptData(bytesOf(number), MVEncryption::kTextMessagePassphrase);
  ASSERT_EQ(encrypted.size(), 32u);
  EXPECT_EQ(hexOf(encrypted), opensslEncryptHex(number + std::string(15, ' '), key));

  // Short passphrases continue with zero bytes; long ones are cut at 32.
  struct Case { std::string passphrase; std::string keyHex; };
  const Case cases[] = {
      {"abc", "616263" + std::string(58, '0')},
      {"", std::string(64, '0')},
      {std::string(32, 'k') + "ignored", hexOf(bytesOf(std::string(32, 'k')))},
      {"clé", "636cc3a9" + std::string(56, '0')},  // counted in UTF-8 bytes
  };
  const std::string block = "0123456789abcdef";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.passphrase);
    EXPECT_EQ(hexOf(MVEncryption::keyFromPassphrase(c.passphrase)), c.keyHex);
    EXPECT_EQ(hexOf(MVEncryption::AESEncryptData(bytesOf(block), c.passphrase)),
              opensslEncryptHex(block, fromHex(c.keyHex)));
  }
}

TEST(MVEncryptionTest, BlockLayoutAndRoundTrip) {
  const auto passphrase = MVEncryption::kTextMessagePassphrase;
  EXPECT_TRUE(MVEncryption::AESEncryptData({}, passphrase).empty());
  EXPECT_TRUE(MVEncryption::AESDecryptData({}, passphrase).empty());

  // The 17th byte comes back in a block of its own, padded with spaces that
  // decryption leaves in place.
  Data seventeen = MVEncryption::AESEncryptData(bytesOf("ABCDEFGHIJKLMNOPQ"), passphrase);
  ASSERT_EQ(seventeen.size(), 32u);
  EXPECT_EQ(textOf(MVEncryption::AESDecryptData(seventeen, passphrase)), "ABCDEFGHIJKLMNOPQ" + std::string(15, ' '));

  // A cut-off final block is still decrypted as a whole block instead of
  // being dropped or read past.
  Data stored = MVEncryption::AESEncryptData(bytesOf("+1 (555) 010-0000"), passphrase);
  Data truncated(stored.begin(), stored.begin() + 20);
  Data decrypted = MVEncryption::AESDecryptData(truncated, passphrase);
  ASSERT_EQ(decrypted.size(), 32u);
  EXPECT_EQ(textOf(decrypted).substr(0, 16), "+1 (555) 010-000");
}

}  // namespace
