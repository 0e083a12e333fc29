#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Base64.h"
#include "TestSupport.h"

using Data = Base64Additions::Data;

namespace {
Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }
std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }
}  // namespace

TEST(Base64, EncodesAndDecodesTheRfc4648VectorsAndWebSafeSwapsTwoCharacters) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(Base64Additions::encodeBase64ForData(bytesOf(plain)), encoded) << plain;
    EXPECT_EQ(textOf(Base64Additions::decodeBase64ForString(encoded)), plain) << encoded;
  }
  const Data awkward{0xFB, 0xFF, 0xBF, 0xFE};
  EXPECT_EQ(Base64Additions::encodeBase64ForData(awkward), "+/+//g==");
  EXPECT_EQ(Base64Additions::encodeWebSafeBase64ForData(awkward), "-_-__g==");
  EXPECT_EQ(Base64Additions::decodeWebSafeBase64ForString("-_-__g=="), awkward);
}

TEST(Base64, DecodingSkipsBlanksAndForeignBytesAndStopsAtPadding) {
  const std::pair<std::string, std::string> cases[] = {
      {"Zm9v\r\nYmFy", "foobar"},
      {" Zm 9v\tYm\vFy\f", "foobar"},
      {"Zm9v!Ym*Fy", "foobar"},
      {"Zm9v\xC3\xA9YmFy", ""},            // not ASCII: no bytes at all
      {"Zg==Zm9v", "f"},                    // nothing after the first '='
      {std::string("AA\0A", 4), std::string("\0\0\0", 3)},  // NUL counts as zero
  };
  for (const auto& [encoded, plain] : cases)
    EXPECT_EQ(textOf(Base64Additions::decodeBase64ForString(encoded)), plain) << encoded;
}

TEST(Base64, AgreesWithCoreutilsOnRandomData) {
  std::mt19937 random(20261123);
  std::string dir = quillon_test::makeTempDir("base64");
  for (std::size_t length : {1u, 2u, 53u, 54u, 55u, 4099u}) {
    Data data(length);
    for (auto& b : data) b = static_cast<std::uint8_t>(random());
    std::string path = dir + "/input.bin";
    quillon_test::writeFile(path, textOf(data));

    std::string plain = quillon_test::shellOutput("base64 -w 0 " + path);
    EXPECT_EQ(Base64Additions::encodeBase64ForData(data), plain) << length;
    EXPECT_EQ(Base64Additions::decodeBase64ForString(plain), data) << length;

    // Lines of 72: coreutils ends each with LF, ours with CR LF and only full lines.
    std::string wrapped = Base64Additions::encodeWrappedBase64ForData(data), asLF = wrapped;
    std::erase(asLF, '\r');
    if (asLF.back() != '\n') asLF += '\n';
    EXPECT_EQ(asLF, quillon_test::shellOutput("base64 -w 72 " + path)) << length;
    EXPECT_EQ(Base64Additions::decodeBase64ForString(wrapped), data) << length;
  }
}
