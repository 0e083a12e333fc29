// Base64 as the SMTP session sends its credentials: the RFC 4648 vectors and
// coreutils' encoder on arbitrary bytes.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "Base64.h"
#include "TestSupport.h"

using Data = Base64Additions::Data;

TEST(Base64, EncodesLikeTheRfcAndCoreutils) {
  const std::pair<std::string, const char*> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF\xBF\xFE", "+/+//g=="},
  };
  for (const auto& [plain, encoded] : vectors)
    EXPECT_EQ(Base64Additions::encodeBase64ForData(Data(plain.begin(), plain.end())), encoded) << plain;

  std::mt19937 random(20261123);
  const std::string path = quillon_test::makeTempDir("base64") + "/input.bin";
  for (std::size_t length : {53u, 54u, 55u, 4099u}) {
    Data data(length);
    for (auto& b : data) b = static_cast<std::uint8_t>(random());
    quillon_test::writeFile(path, std::string(data.begin(), data.end()));
    EXPECT_EQ(Base64Additions::encodeBase64ForData(data), quillon_test::shellOutput("base64 -w 0 " + path)) << length;
  }
}
