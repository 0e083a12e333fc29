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

// `openssl enc` in raw ECB mode on `plaintext` (whose length must be a
// multiple of 16) with the given key in hex, as lowercase hex.
std::string opensslEncryptHex(const std::string& plaintext, const std::string& keyHex) {
  std::string file = quillon_test::makeTempDir("aes") + "/plain";
  quillon_test::writeFile(file, plaintext);
  return quillon_test::shellOutput("openssl enc -aes-256-ecb -nopad -K " + keyHex + " -in " + file +
                                   " | od -An -v -tx1 | tr -d ' \\n'");
}

TEST(MVEncryptionTest, EncryptsLikeOpensslWithSpacePaddingAndTheKeyRule) {
  const std::string number = "+1 (555) 010-0000";  // 17 bytes: a full block and one byte
  const auto key = MVEncryption::keyFromPassphrase(MVEncryption::kTextMessagePassphrase);

  Data encrypted = MVEncryption::AESEncryptData(bytesOf(number), MVEncryption::kTextMessagePassphrase);
  ASSERT_EQ(encrypted.size(), 32u);
  EXPECT_EQ(hexOf(encrypted), opensslEncryptHex(number + std::string(15, ' '), hexOf(key)));
  // Decryption leaves the padding in place.
  EXPECT_EQ(textOf(MVEncryption::AESDecryptData(encrypted, MVEncryption::kTextMessagePassphrase)),
            number + std::string(15, ' '));
  EXPECT_TRUE(MVEncryption::AESEncryptData({}, MVEncryption::kTextMessagePassphrase).empty());

  // Short passphrases continue with zero bytes; long ones are cut at 32.
  struct Case { std::string passphrase; std::string keyHex; };
  const Case cases[] = {
      {"abc", "616263" + std::string(58, '0')},
      {std::string(32, 'k') + "ignored", hexOf(bytesOf(std::string(32, 'k')))},
  };
  const std::string block = "0123456789abcdef";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.passphrase);
    EXPECT_EQ(hexOf(MVEncryption::keyFromPassphrase(c.passphrase)), c.keyHex);
    EXPECT_EQ(hexOf(MVEncryption::AESEncryptData(bytesOf(block), c.passphrase)),
              opensslEncryptHex(block, c.keyHex));
  }
}

}  // namespace
