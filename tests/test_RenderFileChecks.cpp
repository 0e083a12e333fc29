// The file-level answers the folder check relies on: numbered stills as one
// sequence, the atom walk of QuickTime/MPEG-4 files, and which process holds
// a file open for writing.
#include <fstream>

#include "MVFrameSequence.h"
#include "MVMovieAtoms.h"
#include "MVOpenFiles.h"
#include "WatchTestSupport.h"

using namespace watch_test;

namespace {

TEST(FrameSequence, NamesPatternsRangesAndMissingFrames) {
  struct Case {
    std::vector<std::string> names;
    std::string member;
    std::string shown;    // "" = member is no frame
    std::string missing;
  };
  const Case cases[] = {
      {{"shot_1001.exr", "shot_1002.exr", "shot_1004.exr", "shot_1003.EXR"}, "shot_1002.exr",
       "shot_####.exr, frames 1001-1004, 3 frames", "1 frame missing: 1003"},
      // The last run of digits before the extension is the frame number;
      // other sequences and files in the folder are not counted.
      {{"v2_take3.0009.dpx", "v2_take3.0010.dpx", "v2_take4.0011.dpx", "notes.txt"}, "v2_take3.0010.dpx",
       "v2_take3.####.dpx, frames 9-10, 2 frames", ""},
      {{"f1.png", "f2.png", "f10.png", "f11.png", "f13.png", "f17.png"}, "f1.png", "f#.png, frames 1-17, 6 frames",
       "11 frames missing: 3, 4, 5, 6, 7, 8, 9, 12, 14, 15, 16"},
      {{"IMG.jpg"}, "IMG.jpg", "", ""},
      {{"clip_0001.mov"}, "clip_0001.mov", "", ""},
      {{"1234567890123.tif"}, "1234567890123.tif", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.member);
    auto frame = MVFrameSequence::frameName(c.member);
    ASSERT_EQ(frame.has_value(), !c.shown.empty());
    if (!frame) continue;
    MVFrameSequence sequence = MVFrameSequence::gather(c.names, *frame);
    EXPECT_EQ(sequence.shownName(), c.shown);
    EXPECT_EQ(sequence.missingDescription(), c.missing);
  }
  // A huge gap is counted, and only the first frames of it are named.
  auto wide = MVFrameSequence::gather({"a_1.png", "a_900000000.png"}, *MVFrameSequence::frameName("a_1.png"));
  EXPECT_EQ(wide.shownName(), "a_#.png, frames 1-900000000, 2 frames");
  EXPECT_EQ(wide.missingDescription().rfind("899999998 frames missing: 2, 3, 4,", 0), 0u);
  EXPECT_EQ(wide.missing.size(), 50u);
}

std::string atom(const std::string& type, const std::string& body = "", long long declared = -1) {
  unsigned long long size = declared >= 0 ? static_cast<unsigned long long>(declared) : 8 + body.size();
  std::string out;
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((size >> shift) & 0xff);
  return out + type + body;
}

std::string largeAtom(const std::string& type, const std::string& body, unsigned long long declared) {
  std::string out = atom(type, "", 1);
  for (int shift = 56; shift >= 0; shift -= 8) out += static_cast<char>((declared >> shift) & 0xff);
  return out + body;
}

TEST(MovieAtoms, TellsCompleteMoviesFromBrokenOnes) {
  const std::string ftyp = atom("ftyp", "isomiso2mp41"), media(64, 'x');
  struct Case {
    const char* what;
    std::string bytes;
    MVMovieVerdict verdict;
  };
  const Case cases[] = {
      {"moov at the end", ftyp + atom("free") + atom("mdat", media) + atom("moov", atom("mvhd")), MVMovieVerdict::Complete},
      {"64-bit mdat", ftyp + largeAtom("mdat", media, 16 + media.size()) + atom("moov"), MVMovieVerdict::Complete},
      {"fragmented", ftyp + atom("moov") + atom("moof") + atom("mdat", media), MVMovieVerdict::Complete},
      {"last atom to the end", ftyp + atom("moov") + atom("mdat", media, 0), MVMovieVerdict::Complete},
      {"fragments without moov", ftyp + atom("moof") + atom("mdat", media), MVMovieVerdict::NoMovieAtom},
      {"mdat longer than the file", ftyp + atom("mdat", media, 4000) , MVMovieVerdict::RunsPastEnd},
      {"64-bit size past the end", ftyp + largeAtom("mdat", media, 1ull << 62), MVMovieVerdict::RunsPastEnd},
      {"64-bit size cut off", ftyp + atom("moov") + atom("mdat", "", 1).substr(0, 8) + "abc", MVMovieVerdict::RunsPastEnd},
      {"header cut off", ftyp + atom("moov") + std::string(2, '\0'), MVMovieVerdict::RunsPastEnd},
      {"size below its header", ftyp + atom("moov", "", 4), MVMovieVerdict::RunsPastEnd},
      {"not a movie at all", std::string(200, 'r'), MVMovieVerdict::NotAMovie},
      {"empty file", "", MVMovieVerdict::NoMovieAtom},
  };
  const std::string folder = makeTempDir("atoms");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(MVMovieAtoms::checkBytes(reinterpret_cast<const unsigned char*>(c.bytes.data()), c.bytes.size()).verdict,
              c.verdict);
    std::ofstream(folder + "/m.mov", std::ios::binary | std::ios::trunc) << c.bytes;
    EXPECT_EQ(MVMovieAtoms::checkFile(folder + "/m.mov").verdict, c.verdict);
  }
  EXPECT_EQ(MVMovieAtoms::checkFile(folder + "/none.mov").verdict, MVMovieVerdict::Unreadable);
}

// A shell that holds a file open for writing, then for reading only.
TEST(OpenFiles, FindsTheProcessThatHoldsAFileOpenForWriting) {
  const std::string folder = makeTempDir("open");
  const std::string file = folder + "/held.mov", ready = folder + "/ready";
  writeFile(file, "x");
  for (auto [redirect, writing] : {std::pair{"3>>", true}, {"3<>", true}, {"3<", false}}) {
    SCOPED_TRACE(redirect);
    unlink(ready.c_str());
    auto holder = std::make_unique<ChildProcess>(std::string("exec ") + redirect + "'" + file + "'; touch '" + ready + "'; exec sleep 30");
    ASSERT_TRUE(waitUntil([&] { return fileExists(ready); }, 10));
    auto writer = MVOpenFiles::writerOfAnyOf({folder + "/missing.mov", file});
    ASSERT_EQ(writer.has_value(), writing);
    if (writer) {
      EXPECT_EQ(writer->pid, holder->pid());
      EXPECT_EQ(writer->command, "sleep");
      EXPECT_EQ(writer->path, file);
    }
    holder.reset();
    EXPECT_FALSE(MVOpenFiles::writerOf(file));
  }
}

}  // namespace
