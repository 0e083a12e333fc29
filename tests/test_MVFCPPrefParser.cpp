// Final Cut's scratch locations read from hand-made binary preference files.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "MVFCPPrefParser.h"
#include "MVLocalPaths.h"
#include "MVPropertyList.h"
#include "TestSupport.h"

using namespace quillon_test;
namespace fs = std::filesystem;

namespace {

std::string pascal(const std::string& s) { return std::string(1, static_cast<char>(s.size())) + s; }

// Bytes that are neither printable nor NUL, as binary fields are.
const std::string kGap = "\x01\x02\x83\x04\xfe\x06\x17\x08";

// A key, binary bytes, then the value as a Pascal string padded with NULs.
std::string entry(const std::string& key, const std::string& value) {
  return pascal(key) + kGap + pascal(value) + std::string(4, '\0') + kGap;
}

std::string gap(std::size_t length) { return std::string(length, '\x01'); }

// A key after an entry, so that the entry is stored: a key open at the end never is.
const std::string kNextKey = pascal("waveform") + kGap + kGap;

std::string noise(std::size_t length, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(length, '\0');
  for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
  return bytes;
}

std::string prefsFile(const std::string& contents) {
  std::string path = makeTempDir("fcp") + "/Final Cut Pro 7.0 Prefs.fcset";
  writeFile(path, contents);
  return path;
}

std::string documents(const std::string& rest) { return MVLocalPaths::documentDirectory(true) + "/" + rest; }

class MVFCPPrefParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MVFCPPrefParser::setBootVolumeNameForTesting(std::optional<std::string>("Macintosh HD"));
    std::error_code ec;
    fs::remove(MVFCPPrefParser::cacheFilePath(), ec);
  }
  void TearDown() override {
    MVFCPPrefParser::setBootVolumeNameForTesting(std::nullopt);
    MVFCPPrefParser::setApplicationsFolderForTesting(std::nullopt);
  }

  MVFCPPrefParser parserFor(const std::string& path, const MVFCPPrefParser::TypeList& types = std::nullopt) {
    MVFCPPrefParser parser;
    parser.setPreferenceFilePath(path);
    parser.loadDataForTypes(types);
    return parser;
  }
};

}  // namespace

TEST_F(MVFCPPrefParserTest, ScannerReadsEveryLocationThroughNoise) {
  const std::string longRender = "Media:Renders:Documentary Project 2024";  // its length byte is printable
  std::string file = noise(300, 1) + kGap + entry("render", longRender) + noise(40, 2) + kGap +
                     entry("audiorender", "Media:Renders:Audio Render Files") +
                     entry("capture", "Macintosh HD:Users:ann:Capture") + entry("audiocapture", "NoColonValue") +
                     entry("scratch", "Macintosh HD:Users:ann:Scratch") + entry("waveform", "Media:Cache") +
                     noise(500, 3) + kGap + entry("thumbnail", "Media:Cache:Thumbnail Cache Files") +
                     entry("searchLocations", "Media:Searched:Here") + entry("autoSaveVault", "Backup:Vault") +
                     noise(64, 4);
  MVFCPPrefParser parser = parserFor(prefsFile(file));

  EXPECT_EQ(parser.renderPath(), "/Volumes/Media/Renders/Documentary Project 2024/Render Files");
  EXPECT_EQ(parser.audioCaptureScratchPath(), "/Users/ann/Capture/Capture Scratch");  // no path: copied
  EXPECT_EQ(parser.scratchPath(), "/Users/ann/Scratch");
}

// Layouts whose every 15-character slice is known: the key "render" and its
// value, then what follows.
TEST_F(MVFCPPrefParserTest, KeysFoundInsideASliceAndAtTheEnd) {
  const std::string head = pascal("render") + gap(8) + "\x12" "Media:Renders:Proj";
  const std::string captureThenScratch = pascal("capture") + gap(1) + "Media:Captured" + gap(6) + pascal("scratch") + gap(16);
  const std::string nul2(2, '\0');
  struct Layout { const char* what; std::string tail, render, scratch; } layouts[] = {
      {"key open at the end", gap(16), documents("Final Cut Pro Documents/Render Files"),
       documents("Final Cut Pro Documents")},
      {"key across two slices", gap(16) + pascal("capture") + gap(16), "/Volumes/Media/Renders/Proj/Render Files",
       documents("Final Cut Pro Documents")},
      // The pending render run is completed for capture, whose folder the others follow.
      {"pending run, slice opens with a separator", nul2 + gap(1) + captureThenScratch,
       "/Volumes/Media/Renders/Proj/Render Files", "/Volumes/Media/Renders/Proj"},
      {"pending run, slice continues it", nul2 + std::string(1, '\0') + captureThenScratch,
       "/Volumes/Media/Captured/Render Files", "/Volumes/Media/Captured"},
  };
  for (const Layout& layout : layouts) {
    SCOPED_TRACE(layout.what);
    fs::remove(MVFCPPrefParser::cacheFilePath());
    testing::internal::CaptureStderr();
    MVFCPPrefParser parser = parserFor(prefsFile(head + layout.tail));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(parser.renderPath(), layout.render);
    EXPECT_EQ(parser.scratchPath(), layout.scratch);
  }
}

TEST_F(MVFCPPrefParserTest, FilesShorterThanOneSliceAreNotScanned) {
  for (std::size_t length : {15u, 16u}) {
    fs::remove(MVFCPPrefParser::cacheFilePath());
    testing::internal::CaptureStderr();
    MVFCPPrefParser parser = parserFor(prefsFile((pascal("render") + kGap + "Media:X:Y").substr(0, length)));
    std::string console = testing::internal::GetCapturedStderr();
    const bool scanned = length == 16;
    EXPECT_EQ(parser.renderPath(),
              scanned ? std::optional(documents("Final Cut Pro Documents/Render Files")) : std::nullopt);
    EXPECT_EQ(fs::exists(MVFCPPrefParser::cacheFilePath()), scanned);
    EXPECT_EQ(console.find("too short") != std::string::npos, !scanned) << console;
  }
}

TEST_F(MVFCPPrefParserTest, UnchangedFileIsServedFromTheCacheWithoutBeingRead) {
  std::string path = prefsFile(noise(20, 7) + kGap + entry("render", "Media:Renders:First") +
                               entry("scratch", "Media:Scratch:Disk") + kNextKey + noise(20, 8));
  // As the agent asks: only the render folder is looked for, the others keep their defaults.
  MVFCPPrefParser first = parserFor(path, std::vector<std::string>{"render"});
  EXPECT_EQ(first.renderPath(), "/Volumes/Media/Renders/First/Render Files");
  EXPECT_EQ(first.scratchPath(), documents("Final Cut Pro Documents"));
  auto written = fs::last_write_time(path);

  // New content with the old date: the cache answers, so the file was not read.
  writeFile(path, noise(20, 9) + kGap + entry("render", "Media:Renders:Second") + kNextKey + noise(20, 10));
  fs::last_write_time(path, written);
  EXPECT_EQ(parserFor(path).renderPath(), "/Volumes/Media/Renders/First/Render Files");

  fs::last_write_time(path, written + std::chrono::seconds(5));
  EXPECT_EQ(parserFor(path).renderPath(), "/Volumes/Media/Renders/Second/Render Files");
}

TEST_F(MVFCPPrefParserTest, ClassicPathsKeysAndDefaults) {
  MVFCPPrefParser parser;
  parser.setPathForKey(std::string("render\0\0\x01", 9), {"junk", "Media:FCP:Render Files", "Media:Other"});
  EXPECT_EQ(parser.renderPath(), "/Volumes/Media/FCP/Render Files");
  parser.setPathForKey("capture", {"nocolon", ":leading", "trailing:"});
  EXPECT_EQ(parser.captureScratchPath(), std::nullopt);
  // With no boot volume name every classic path is on another volume.
  MVFCPPrefParser::setBootVolumeNameForTesting(std::optional<std::string>());
  EXPECT_EQ(parser.formatPath("Macintosh HD:Users"), "/Volumes/Macintosh HD/Users");

  // Missing locations derive from known ones.
  MVFCPPrefParser audioCapture;
  audioCapture.setAudioCaptureScratchPath("/A/Cap/Audio Capture Scratch");
  audioCapture.setupDefaults();
  EXPECT_EQ(audioCapture.scratchPath(), "/A");
  EXPECT_EQ(audioCapture.renderPath(), "/A/Render Files");
}

TEST_F(MVFCPPrefParserTest, PreferenceFileFollowsTheInstalledVersion) {
  std::string apps = makeTempDir("Applications");
  MVFCPPrefParser::setApplicationsFolderForTesting(apps);
  auto install = [&](const std::string& bundle, const MVPlistValue& info) {
    fs::create_directories(apps + "/" + bundle + "/Contents");
    ASSERT_TRUE(MVPropertyList::write(apps + "/" + bundle + "/Contents/Info.plist", info));
  };
  const std::string prefs = MVLocalPaths::prefsDirectory(true);

  EXPECT_EQ(MVFCPPrefParser().preferenceFilePath(), std::nullopt);  // not installed

  install("Final Cut Pro.app", MVPlistValue::Dictionary{{"CFBundleShortVersionString", "7.0.3"}});
  EXPECT_EQ(MVFCPPrefParser().preferenceFilePath(), prefs + "/Final Cut Pro User Data/Final Cut Pro 7.0 Prefs.fcset");
  install("Final Cut Studio/Final Cut Pro.app", MVPlistValue::Dictionary{{"CFBundleShortVersionString", "10.1"}});
  EXPECT_EQ(MVFCPPrefParser().preferenceFilePath(), prefs + "/Final Cut Pro User Data/Final Cut Pro 1.0 Prefs.fcset");

  // Installed, but no preference file yet: nothing is found and nothing cached.
  testing::internal::CaptureStderr();
  MVFCPPrefParser missing;
  missing.loadDataForTypes(std::vector<std::string>{"render"});
  std::string console = testing::internal::GetCapturedStderr();
  EXPECT_EQ(missing.renderPath(), std::nullopt);
  EXPECT_NE(console.find("Unable to load Final Cut Pro preference file " + prefs), std::string::npos) << console;
  EXPECT_FALSE(fs::exists(MVFCPPrefParser::cacheFilePath()));
}

TEST_F(MVFCPPrefParserTest, BootVolumeLabelComesFromTheRootMount) {
  std::string dir = makeTempDir("mounts");
  fs::create_directories(dir + "/dev/disk/by-label");
  writeFile(dir + "/dev/sda1", "");
  writeFile(dir + "/dev/sdb1", "");
  fs::create_symlink("../../sda1", dir + "/dev/disk/by-label/Macintosh\\x20HD");
  fs::create_symlink("../../sdb1", dir + "/dev/disk/by-label/Media");
  auto table = [&](const std::string& lines) {
    writeFile(dir + "/mountinfo", lines);
    return MVFCPPrefParser::volumeLabelForMountPoint("/", dir + "/mountinfo", dir + "/dev/disk/by-label");
  };
  const std::string sda = dir + "/dev/sda1", sdb = dir + "/dev/sdb1";
  EXPECT_EQ(table("22 1 8:1 / / rw - ext4 " + sda + " rw\n23 22 8:17 / /Volumes/Media rw - ext4 " + sdb + " rw\n"),
            "Macintosh HD");
  // The last mount on "/" is the one in effect.
  EXPECT_EQ(table("22 1 8:1 / / rw - ext4 " + sda + " rw\n30 22 8:17 / / rw - ext4 " + sdb + " rw\n"), "Media");
  EXPECT_EQ(table("garbage\n\n1 2\n22 1 0:40 / / rw - overlay overlay rw\n"), std::nullopt);
}
