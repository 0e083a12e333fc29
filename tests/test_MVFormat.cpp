// printf-style formatting with the agent's %@ and forgiving argument rules.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "MVFormat.h"

namespace {

struct Case {
  const char* format;
  std::vector<MVFormatArg> args;
  std::string expected;
};

void expectCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) EXPECT_EQ(MVFormat(c.format, c.args), c.expected) << "format: \"" << c.format << "\"";
}

}  // namespace

TEST(MVFormat, IntegerConversionsHonourFlagsWidthAndLength) {
  expectCases({
      {"%d|%i|%li|%ld|%lld|%qi", {1, -2, 3L, -4L, 5LL, -6LL}, "1|-2|3|-4|5|-6"},
      {"%u|%lu|%x", {-1, -1, -1}, "4294967295|18446744073709551615|ffffffff"},
      {"%x|%X|%04x|%#x|%o|%#o", {255, 255, 0x1f, 255, 8, 8}, "ff|FF|001f|0xff|10|010"},
      {"[%5d][%-5d][%05d][%+d][% d][%.3d][%+.0d]", {42, 42, -42, 42, 42, 7, 0}, "[   42][42   ][-0042][+42][ 42][007][+]"},
      {"%hhd|%hd|%hhu", {300, 70000, -1}, "44|4464|255"},
      {"%*d|%-*d|%*d", {5, 42, 3, 7, -3, 9}, "   42|7  |9  "},
  });
}

TEST(MVFormat, RealCharacterAndTextConversions) {
  expectCases({
      {"%f|%0.2f|%.1f|%g|%e", {1.5, 3.14159, 2.25, 0.0001, 1234.5}, "1.500000|3.14|2.2|0.0001|1.234500e+03"},
      {"%8.3f|%-8.1f|%.*f", {3.14159, 2.0, 1, 9.96}, "   3.142|2.0     |10.0"},
      {"%c%c|%C|%C|%C|%lC", {'O', 'k', 0x00E9, 0x20AC, 0xD83D, 0x1F600}, "Ok|é|€|\xEF\xBF\xBD|\xF0\x9F\x98\x80"},
      {"%s|%@|%5s|%-5@|%.2s|%.2@", {"a", "b", "ab", "cd", "héllo", "xyz"}, "a|b|   ab|cd   |hé|xy"},
      {"%%|%5%|100%%", {}, "%|%|100%"},
  });
}

TEST(MVFormat, MissingOrNilArgumentsPrintNullAndUnknownConversionsStay) {
  expectCases({
      {"%@ %@ %@", {"a"}, "a (null) (null)"},
      {"%s|%d|%f|%c|%x", {}, "(null)|(null)|(null)|(null)|(null)"},
      {"%@|%s|%d", {nullptr, static_cast<const char*>(nullptr), nullptr}, "(null)|(null)|0"},
      {"%k %@ %n %y", {"x"}, "%k x %n %y"},
      {"50%", {}, "50%"},
      {"%2$@ %1$@ %3$@", {"a", "b"}, "b a (null)"},
  });
}

TEST(MVFormat, ArgumentsOfAnotherKindAreConverted) {
  MVPlistValue array(MVPlistValue::Array{MVPlistValue(1), MVPlistValue("two")});
  expectCases({
      {"%@|%@|%@|%@", {42, -7LL, 0.5, 3.0}, "42|-7|0.5|3"},
      {"%s|%s", {12, 2.5}, "12|2.5"},
      {"%d|%d|%d|%i", {"12abc", "abc", 3.9, -3.9}, "12|0|3|-3"},
      {"%c", {"élan"}, "é"},
      // Property-list values keep their kind.
      {"%d|%@|%d|%@|%.1f", {MVPlistValue(7), MVPlistValue(7), MVPlistValue(true), MVPlistValue(true), MVPlistValue(1.25)},
       "7|7|1|1|1.2"},
      {"%@|%d|%@", {MVPlistValue("9 lives"), MVPlistValue("9 lives"), MVPlistValue()}, "9 lives|9|(null)"},
      {"%@", {array}, array.description()},
  });
  enum class Kind { kFirst = 3 };
  EXPECT_EQ(MVFormatString("%d %@", Kind::kFirst, std::string("s")), "3 s");
}

TEST(MVFormat, HugeWidthsStayBounded) {
  // A file name reaching a format, or a broken settings value, must not
  // make the output unbounded.
  EXPECT_EQ(MVFormat("%99999999999999999999d", std::vector<MVFormatArg>{1}).size(), 100000u);
  EXPECT_EQ(MVFormatString("%*s|", -2147483647, "x").size(), 100001u);
}
