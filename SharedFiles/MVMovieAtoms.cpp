#include "MVMovieAtoms.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// A file is judged only when its first atom is one a QuickTime or MPEG-4
// writer starts with; anything else under a movie extension is left alone.
constexpr const char* kFirstAtoms[] = {"ftyp", "moov", "mdat", "free", "skip", "wide",
                                       "pnot", "uuid", "junk", "pdin", "styp", "sidx"};

// The walk stops after this many atoms: a real file has a handful, a
// crafted one must not keep the folder check busy.
constexpr int kMaxAtoms = 100000;

std::uint64_t bigEndian(const unsigned char* p, int bytes) {
  std::uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value = (value << 8) | p[i];
  return value;
}

std::string printable(const unsigned char* type) {
  std::string out;
  for (int i = 0; i < 4; ++i) out += (type[i] >= 0x20 && type[i] < 0x7f) ? static_cast<char>(type[i]) : '?';
  return out;
}

}  // namespace

MVMovieCheck MVMovieAtoms::checkAtoms(std::uint64_t fileSize, const Reader& read) {
  bool sawMovie = false;
  std::uint64_t offset = 0;
  for (int count = 0; offset < fileSize; ++count) {
    if (count == kMaxAtoms)
      return {sawMovie ? MVMovieVerdict::Complete : MVMovieVerdict::NotAMovie, "more atoms than any movie has"};
    unsigned char header[16];
    std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(16, fileSize - offset));
    if (read(offset, header, want) != want) return {MVMovieVerdict::Unreadable, "read error"};
    const std::string type = printable(header + 4);
    if (want < 8) return {MVMovieVerdict::RunsPastEnd, "an atom header is cut off at offset " + std::to_string(offset)};
    if (count == 0 && std::none_of(std::begin(kFirstAtoms), std::end(kFirstAtoms),
                                   [&](const char* t) { return std::memcmp(t, header + 4, 4) == 0; }))
      return {MVMovieVerdict::NotAMovie, "first atom '" + type + "'"};

    std::uint64_t size = bigEndian(header, 4);
    std::uint64_t headerSize = 8;
    if (size == 1) {
      if (want < 16)
        return {MVMovieVerdict::RunsPastEnd, "the 64-bit size of '" + type + "' is cut off at offset " + std::to_string(offset)};
      size = bigEndian(header + 8, 8);
      headerSize = 16;
    } else if (size == 0) {
      size = fileSize - offset;  // to the end of the file
    }
    if (size < headerSize)
      return {MVMovieVerdict::RunsPastEnd, "atom '" + type + "' at offset " + std::to_string(offset) + " has an impossible size"};
    if (std::memcmp(header + 4, "moov", 4) == 0) sawMovie = true;
    if (size > fileSize - offset)
      return {MVMovieVerdict::RunsPastEnd, "atom '" + type + "' at offset " + std::to_string(offset) + " needs " +
                                                std::to_string(size) + " bytes, the file has " +
                                                std::to_string(fileSize - offset) + " left"};
    offset += size;
  }
  if (!sawMovie) return {MVMovieVerdict::NoMovieAtom, "no 'moov' atom"};
  return {MVMovieVerdict::Complete, {}};
}

MVMovieCheck MVMovieAtoms::checkBytes(const unsigned char* data, std::size_t size) {
  return checkAtoms(size, [&](std::uint64_t offset, unsigned char* buffer, std::size_t length) -> std::size_t {
    if (offset >= size) return 0;
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(length, size - offset));
    std::memcpy(buffer, data + offset, n);
    return n;
  });
}

MVMovieCheck MVMovieAtoms::checkFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {MVMovieVerdict::Unreadable, std::strerror(errno)};
  struct stat st {};
  MVMovieCheck result{MVMovieVerdict::Unreadable, "cannot read the file's size"};
  if (fstat(fd, &st) == 0)
    result = checkAtoms(static_cast<std::uint64_t>(st.st_size),
                        [fd](std::uint64_t offset, unsigned char* buffer, std::size_t length) -> std::size_t {
                          ssize_t n = pread(fd, buffer, length, static_cast<off_t>(offset));
                          return n < 0 ? 0 : static_cast<std::size_t>(n);
                        });
  close(fd);
  return result;
}
