// Whether a QuickTime or MPEG-4 file was written to its end.
//
// Such a file is a run of top-level atoms: a 32-bit big-endian size and a
// four-character type, a size of 1 meaning a 64-bit size follows, a size of
// 0 meaning "to the end of the file". A writer that dies half-way leaves the
// last atom running past the end, or never writes the 'moov' atom that
// indexes the media (a fragmented file writes an initial 'moov' and then
// 'moof' fragments). Only the atom headers are read, never the media.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

enum class MVMovieVerdict {
  Complete,      // every atom ends inside the file and a 'moov' is present
  RunsPastEnd,   // an atom (or its header) runs past the end of the file
  NoMovieAtom,   // the atoms end cleanly but no 'moov' was written
  NotAMovie,     // the first atom is not one that starts a QuickTime/MPEG-4 file
  Unreadable,    // the file could not be opened or read
};

struct MVMovieCheck {
  MVMovieVerdict verdict = MVMovieVerdict::Unreadable;
  std::string detail;  // for the log: which atom, at which offset
};

class MVMovieAtoms {
 public:
  // Reads up to `length` bytes at `offset` into `buffer`; answers the count read.
  using Reader = std::function<std::size_t(std::uint64_t offset, unsigned char* buffer, std::size_t length)>;

  // Walks the top-level atoms of a file of `fileSize` bytes.
  [[nodiscard]] static MVMovieCheck checkAtoms(std::uint64_t fileSize, const Reader& read);
  [[nodiscard]] static MVMovieCheck checkBytes(const unsigned char* data, std::size_t size);
  [[nodiscard]] static MVMovieCheck checkFile(const std::string& path);
};
