// Property lists shared with other programs, and damaged files read as nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "MVPropertyList.h"
#include "TestSupport.h"

using namespace quillon_test;
namespace fs = std::filesystem;
using Format = MVPropertyList::Format;

namespace {

MVPlistValue::Date utcDate(long long secondsSince1970) {
  return MVPlistValue::Date(std::chrono::seconds(secondsSince1970));
}

// The same document in Python and as the value model.
const char* kPythonDocument = R"(import plistlib, datetime
doc = {
  'watchFolders': ['/Volumes/Media/Renders', '/tmp/Caf\u00e9 \u2603'],
  'notifyGrowl': True, 'notifySound': False,
  'logoutAction': 3, 'negative': -42, 'big': 2**40,
  'ratio': 0.25, 'one': 1.0,
  'stamp': datetime.datetime(2024, 5, 1, 13, 45, 10),
  'txtMessagePhoneNumber': b'\x00\x01\xfe\xff',
  'nested': {'inner': [1, {'deep': 'x'}, []], 'empty': {}},
  'emptyString': '',
}
)";

MVPlistValue expectedDocument() {
  MVPlistValue doc;
  doc.set("watchFolders", MVPlistValue::Array{"/Volumes/Media/Renders", "/tmp/Caf\xc3\xa9 \xe2\x98\x83"});
  doc.set("notifyGrowl", true);
  doc.set("notifySound", false);
  doc.set("logoutAction", 3);
  doc.set("negative", -42);
  doc.set("big", 1LL << 40);
  doc.set("ratio", 0.25);
  doc.set("one", 1.0);
  doc.set("stamp", utcDate(1714571110));
  doc.set("txtMessagePhoneNumber", MVPlistValue::Data{0x00, 0x01, 0xfe, 0xff});
  doc.set("nested", MVPlistValue::Dictionary{
                        {"inner", MVPlistValue::Array{1, MVPlistValue::Dictionary{{"deep", "x"}}, MVPlistValue::Array{}}},
                        {"empty", MVPlistValue::Dictionary{}}});
  doc.set("emptyString", "");
  return doc;
}

std::string repeated(const std::string& text, int times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

// A binary property list of `levels` arrays, each holding `width` references
// to the next: deep, or with width 2 exponentially large once expanded.
std::string chainedArrays(std::uint32_t levels, unsigned width) {
  auto bigEndian = [](std::string& out, std::uint64_t v, int size) {
    for (int i = size - 1; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
  };
  std::string out = "bplist00";
  std::vector<std::uint32_t> offsets;
  for (std::uint32_t i = 0; i < levels; ++i) {
    offsets.push_back(static_cast<std::uint32_t>(out.size()));
    bool last = i + 1 == levels;
    out += static_cast<char>(0xA0 | (last ? 0 : width));
    if (!last)
      for (unsigned k = 0; k < width; ++k) bigEndian(out, i + 1, 4);
  }
  std::uint64_t table = out.size();
  for (std::uint32_t offset : offsets) bigEndian(out, offset, 4);
  out += std::string(6, '\0');
  out += '\4';
  out += '\4';
  bigEndian(out, levels, 8);
  bigEndian(out, 0, 8);
  bigEndian(out, table, 8);
  return out;
}

}  // namespace

TEST(MVPropertyList, FilesAreSharedWithAnotherProgramInBothFormats) {
  std::string dir = makeTempDir("foreign");
  for (auto [format, pyFormat] : {std::pair{Format::XML, "FMT_XML"}, std::pair{Format::Binary, "FMT_BINARY"}}) {
    SCOPED_TRACE(pyFormat);
    std::string theirs = dir + "/theirs-" + pyFormat + ".plist", ours = dir + "/ours-" + pyFormat + ".plist";
    ASSERT_EQ(0, python3(std::string(kPythonDocument) + "open('" + theirs + "', 'wb').write(plistlib.dumps(doc, fmt=plistlib." +
                         pyFormat + "))\n"));
    Format read = format == Format::XML ? Format::Binary : Format::XML;
    MVPlistValue value = MVPropertyList::read(theirs, &read);
    EXPECT_EQ(format, read);
    EXPECT_EQ(expectedDocument(), value) << value.description();

    ASSERT_TRUE(MVPropertyList::write(ours, expectedDocument(), format));
    EXPECT_EQ(0, python3(std::string(kPythonDocument) + "data = open('" + ours + "', 'rb').read()\n"
                         "assert plistlib.loads(data) == doc, plistlib.loads(data)\n"
                         "assert (data[:6] == b'bplist') == (plistlib." + pyFormat + " == plistlib.FMT_BINARY)\n"));
    EXPECT_EQ(expectedDocument(), MVPropertyList::read(ours)) << "switches must stay booleans";
  }
}

TEST(MVPropertyList, DamagedFilesReadAsNilAndStayUntouched) {
  std::string dir = makeTempDir("damaged");
  std::string binary = *MVPropertyList::serialize(expectedDocument(), Format::Binary);
  std::string xml = *MVPropertyList::serialize(expectedDocument(), Format::XML);
  const std::pair<const char*, std::string> cases[] = {
      {"half-binary", binary.substr(0, binary.size() / 2)},
      {"half-xml", xml.substr(0, xml.size() / 2)},
      // Nesting and sharing that would exhaust the stack or the memory.
      {"deep-binary", chainedArrays(300000, 1)},
      {"exploding-binary", chainedArrays(64, 2)},
      {"deep-xml", "<plist>" + repeated("<array>", 300000) + repeated("</array>", 300000) + "</plist>"},
  };
  for (const auto& [name, contents] : cases) {
    SCOPED_TRACE(name);
    std::string path = dir + "/" + name + ".plist";
    writeFile(path, contents);
    Format format = Format::Binary;
    EXPECT_TRUE(MVPropertyList::read(path, &format).isNil());
    EXPECT_EQ(Format::Binary, format) << "the format is only reported for a readable file";
    EXPECT_EQ(contents, readFile(path));
  }
  // Moderate nesting and sharing are ordinary and read fine.
  EXPECT_EQ(3u, MVPropertyList::parse(chainedArrays(10, 3)).count());
  EXPECT_TRUE(MVPropertyList::parse(chainedArrays(400, 1)).isArray());

  EXPECT_TRUE(MVPropertyList::read(dir + "/missing.plist").isNil());
  EXPECT_TRUE(MVPropertyList::read(dir).isNil()) << "a folder is no file";
}

TEST(MVPropertyList, WriteReplacesAtomicallyAndKeepsThePlaceOfTheFile) {
  std::string dir = makeTempDir("write");
  std::string path = dir + "/settings.plist";
  ASSERT_TRUE(MVPropertyList::write(path, MVPlistValue(MVPlistValue::Dictionary{{"a", 1}})));
  ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
  ASSERT_TRUE(MVPropertyList::write(path, MVPlistValue(MVPlistValue::Dictionary{{"a", 2}}), Format::Binary));
  EXPECT_EQ(2, MVPropertyList::read(path)["a"].integerValue());
  EXPECT_EQ(fs::perms(0600), fs::status(path).permissions() & fs::perms::mask);
  EXPECT_EQ(1, std::distance(fs::directory_iterator(dir), fs::directory_iterator())) << "no temporary file left";

  // A linked file is updated through the link.
  std::string target = dir + "/real.plist";
  ASSERT_TRUE(MVPropertyList::write(target, MVPlistValue(MVPlistValue::Dictionary{{"a", 1}})));
  fs::create_symlink("real.plist", dir + "/link.plist");
  ASSERT_TRUE(MVPropertyList::write(dir + "/link.plist", MVPlistValue(MVPlistValue::Dictionary{{"a", 3}})));
  EXPECT_TRUE(fs::is_symlink(dir + "/link.plist"));
  EXPECT_EQ(3, MVPropertyList::read(target)["a"].integerValue());

  EXPECT_FALSE(MVPropertyList::write(dir + "/nil.plist", MVPlistValue()));
  EXPECT_FALSE(fileExists(dir + "/nil.plist"));
}

TEST(MVGlobalPreferences, SwitchAndBooleanRulesOverATableOfValues) {
  struct Case { const char* name; MVPlistValue value; bool switchSet, booleanTrue; };
  const Case cases[] = {
      {"true", true, true, true},     {"int 2", 2, false, true},         {"int 0", 0, false, false},
      {"real 0.5", 0.5, false, true}, {"string 1", "1", true, false},    {"array", MVPlistValue::Array{1}, false, false},
  };
  MVPlistValue doc;
  for (const Case& c : cases) doc.set(c.name, c.value);
  ASSERT_TRUE(MVPropertyList::write(MVGlobalPreferences::path(), doc, Format::Binary));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.switchSet, MVGlobalPreferences::isSwitchSet(c.name));
    EXPECT_EQ(c.booleanTrue, MVGlobalPreferences::isBooleanTrue(c.name));
  }
  EXPECT_FALSE(MVGlobalPreferences::isSwitchSet("absent"));

  // Read afresh at every call.
  fs::remove(MVGlobalPreferences::path());
  EXPECT_FALSE(MVGlobalPreferences::isSwitchSet("true"));
}
