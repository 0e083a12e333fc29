// The top-level atoms of a QuickTime or MPEG-4 file, which the folder check
// walks to tell a complete movie from one whose writer died. Sizes come from
// the file and may say anything: 64-bit sizes near the limit, sizes smaller
// than the header, 0 for "to the end". The walk must end, never read outside
// the file, and answer the same whether it reads from memory or from disk.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "FuzzSupport.h"
#include "MVMovieAtoms.h"

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::uint64_t furthest = 0;
  MVMovieCheck fromMemory = MVMovieAtoms::checkAtoms(size, [&](std::uint64_t offset, unsigned char* buffer,
                                                               std::size_t length) -> std::size_t {
    // Only headers are read: never more than 16 bytes, never past the end.
    if (length > 16 || offset + length > size) std::abort();
    furthest = std::max<std::uint64_t>(furthest, offset + length);
    for (std::size_t i = 0; i < length; ++i) buffer[i] = data[offset + i];
    return length;
  });
  MVMovieCheck viaBytes = MVMovieAtoms::checkBytes(data, size);
  if (fromMemory.verdict != viaBytes.verdict || fromMemory.detail != viaBytes.detail) std::abort();
  if (fromMemory.verdict == MVMovieVerdict::Unreadable) std::abort();

  // A read that comes up short is an unreadable file, not a verdict on it.
  if (size >= 8) {
    MVMovieCheck shortRead = MVMovieAtoms::checkAtoms(size, [](std::uint64_t, unsigned char*, std::size_t) { return std::size_t{0}; });
    if (shortRead.verdict != MVMovieVerdict::Unreadable) std::abort();
  }

  static const std::string path = quillon_fuzz::scratchHome() + "/movie.mov";
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  MVMovieCheck fromFile = MVMovieAtoms::checkFile(path);
  if (fromFile.verdict != fromMemory.verdict) std::abort();
  return 0;
}
