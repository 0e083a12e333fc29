// Renders of numbered stills: one file per frame ("shot_1001.exr",
// "shot_1002.exr", ...). The frame number is the last run of digits before
// the extension, of any width, padded or not; the files that share the text
// around it and the extension are one sequence.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct MVFrameName {
  std::string prefix;  // the text before the frame number
  std::string suffix;  // the text after it, extension included
  long long number = 0;
  std::size_t width = 0;  // digits as written
};

class MVFrameSequence {
 public:
  // The still-image extensions that renders of frames are written in.
  static bool isStillExtension(const std::string& lowercaseExtension);
  // The parts of a numbered still's file name; nullopt for anything else.
  static std::optional<MVFrameName> frameName(const std::string& fileName);

  // The frames among `names` that belong to `member`'s sequence.
  static MVFrameSequence gather(const std::vector<std::string>& names, const MVFrameName& member);

  // "shot_####.exr, frames 1001-1240, 240 frames".
  std::string shownName() const;
  // "3 frames missing: 1017, 1018, 1122"; "" when none is missing.
  std::string missingDescription() const;

  std::string pattern;              // "shot_####.exr"
  std::vector<std::string> frames;  // file names, in frame order, one per number
  long long first = 0, last = 0;
  long long missingCount = 0;       // numbers inside first..last with no file
  std::vector<long long> missing;   // the first of them, as many as are named
};
