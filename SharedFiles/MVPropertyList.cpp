#include "MVPropertyList.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "MVLocalPaths.h"

namespace {

// libplist hands out nodes and buffers that each need their own release call.
struct PlistNodeDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistNode = std::unique_ptr<void, PlistNodeDeleter>;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using CBuffer = std::unique_ptr<char, FreeDeleter>;

struct XmlBufferDeleter {
  void operator()(char* p) const { plist_to_xml_free(p); }
};
struct BinBufferDeleter {
  void operator()(char* p) const { plist_to_bin_free(p); }
};

// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr long long kReferenceDateOffset = 978307200;

// Nested containers deeper than this are not settings but an attack or a
// corrupt file; they read as nil rather than exhausting the stack.
constexpr int kMaxDepth = 512;

bool isValidUTF8(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    std::size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (len == 0 || i + len > text.size()) return false;
    for (std::size_t k = 1; k < len; ++k)
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    i += len;
  }
  return true;
}

// Text that is not UTF-8 (an ASCII-typed binary string with high bytes, a
// hand-edited XML file) is read as Latin-1, so that every string we hold
// can be written back; dropping it would lose the value on the next save.
std::string utf8FromPlistString(std::string text) {
  if (isValidUTF8(text)) return text;
  std::string out;
  for (unsigned char c : text) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

MVPlistValue fromNode(plist_t node, int depth) {
  if (!node || depth > kMaxDepth) return {};
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t v = 0;
      plist_get_bool_val(node, &v);
      return MVPlistValue(v != 0);
    }
    case PLIST_UINT: {
      // Signed integers are stored as their 64-bit two's complement.
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return MVPlistValue(static_cast<long long>(v));
    }
    case PLIST_UID: {
      uint64_t v = 0;
      plist_get_uid_val(node, &v);
      return MVPlistValue(static_cast<long long>(v));
    }
    case PLIST_REAL: {
      double v = 0;
      plist_get_real_val(node, &v);
      return MVPlistValue(v);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      if (!s) return MVPlistValue(std::string());
      return MVPlistValue(utf8FromPlistString(std::string(s, static_cast<std::size_t>(length))));
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      MVPlistValue::Data data;
      if (p && length) data.assign(reinterpret_cast<const std::uint8_t*>(p), reinterpret_cast<const std::uint8_t*>(p) + length);
      return MVPlistValue(std::move(data));
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      auto since = std::chrono::seconds(kReferenceDateOffset + sec) + std::chrono::microseconds(usec);
      return MVPlistValue(MVPlistValue::Date(std::chrono::duration_cast<MVPlistValue::Date::duration>(since)));
    }
    case PLIST_ARRAY: {
      MVPlistValue::Array array;
      uint32_t n = plist_array_get_size(node);
      array.reserve(n);
      for (uint32_t i = 0; i < n; ++i) {
        MVPlistValue item = fromNode(plist_array_get_item(node, i), depth + 1);
        if (!item.isNil()) array.push_back(std::move(item));
      }
      return MVPlistValue(std::move(array));
    }
    case PLIST_DICT: {
      MVPlistValue::Dictionary dictionary;
      plist_dict_iter rawIter = nullptr;
      plist_dict_new_iter(node, &rawIter);
      CBuffer iter(static_cast<char*>(rawIter));
      if (!iter) return MVPlistValue(std::move(dictionary));
      for (;;) {
        char* rawKey = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, rawIter, &rawKey, &value);
        CBuffer key(rawKey);
        if (!value) break;
        MVPlistValue item = fromNode(value, depth + 1);
        if (key && !item.isNil()) dictionary[utf8FromPlistString(key.get())] = std::move(item);
      }
      return MVPlistValue(std::move(dictionary));
    }
    default: return {};
  }
}

PlistNode toNode(const MVPlistValue& value, int depth) {
  if (depth > kMaxDepth) return nullptr;
  switch (value.type()) {
    case MVPlistValue::Type::Nil: return nullptr;
    case MVPlistValue::Type::String: return PlistNode(plist_new_string(value.string()->c_str()));
    case MVPlistValue::Type::Integer:
      return PlistNode(plist_new_uint(static_cast<uint64_t>(value.integerValue())));
    case MVPlistValue::Type::Real: return PlistNode(plist_new_real(value.doubleValue()));
    case MVPlistValue::Type::Boolean: return PlistNode(plist_new_bool(value.boolValue() ? 1 : 0));
    case MVPlistValue::Type::Date: {
      auto micros = std::chrono::duration_cast<std::chrono::microseconds>(value.date()->time_since_epoch()).count() -
                    kReferenceDateOffset * 1000000LL;
      long long sec = micros / 1000000;
      long long usec = micros % 1000000;
      if (usec < 0) {
        usec += 1000000;
        sec -= 1;
      }
      if (sec < std::numeric_limits<int32_t>::min() || sec > std::numeric_limits<int32_t>::max()) return nullptr;
      return PlistNode(plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(usec)));
    }
    case MVPlistValue::Type::Data: {
      const MVPlistValue::Data& data = *value.data();
      return PlistNode(plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
    }
    case MVPlistValue::Type::Array: {
      PlistNode array(plist_new_array());
      for (const MVPlistValue& item : *value.array()) {
        if (item.isNil()) continue;  // a property list cannot hold "no value"
        PlistNode child = toNode(item, depth + 1);
        if (!child) return nullptr;
        plist_array_append_item(array.get(), child.release());
      }
      return array;
    }
    case MVPlistValue::Type::Dictionary: {
      PlistNode dictionary(plist_new_dict());
      for (const auto& [key, item] : *value.dictionary()) {
        if (item.isNil()) continue;
        PlistNode child = toNode(item, depth + 1);
        if (!child) return nullptr;
        plist_dict_set_item(dictionary.get(), key.c_str(), child.release());
      }
      return dictionary;
    }
  }
  return nullptr;
}

// The codec walks nested containers recursively, both to parse and to free
// them, and copies an object for every reference to it in a binary file. A
// corrupt or hostile file could therefore exhaust the stack or the memory
// before any check of ours ran; the two scans below refuse such files first.
constexpr std::uint64_t kMaxNodes = 2'000'000;

std::uint64_t bigEndian(const unsigned char* p, unsigned size) {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < size; ++i) v = (v << 8) | p[i];
  return v;
}

// True when no string object holds a NUL character: the codec asserts on a
// dictionary key with one, which would end the process on a crafted file.
// The element count of the object at `at` and where its contents begin: the
// count is the marker's low nibble, or an integer object after it when the
// nibble is 0xF. False when the header runs past the objects.
bool objectCount(const unsigned char* p, std::uint64_t objectsEnd, std::uint64_t at, std::uint64_t& n,
                 std::uint64_t& pos) {
  n = p[at] & 0xF;
  pos = at + 1;
  if (n != 0xF) return true;
  if (pos >= objectsEnd || (p[pos] >> 4) != 0x1 || (p[pos] & 0xF) > 3) return false;
  unsigned length = 1u << (p[pos] & 0xF);
  if (pos + 1 + length > objectsEnd) return false;
  n = bigEndian(p + pos + 1, length);
  pos += 1 + length;
  return true;
}

bool binaryStringsHaveNoNul(const unsigned char* p, std::uint64_t objectsEnd, std::uint64_t table, std::uint64_t count,
                            unsigned offsetSize) {
  for (std::uint64_t index = 0; index < count; ++index) {
    std::uint64_t at = bigEndian(p + table + index * offsetSize, offsetSize);
    if (at < 8 || at >= objectsEnd) return false;
    unsigned type = p[at] >> 4;
    if (type != 0x5 && type != 0x6) continue;
    std::uint64_t n = 0, pos = 0;
    if (!objectCount(p, objectsEnd, at, n, pos)) return false;
    std::uint64_t unit = type == 0x6 ? 2 : 1;
    if (n > objectsEnd || n * unit > objectsEnd - pos) return false;
    for (std::uint64_t i = 0; i < n; ++i) {
      bool nul = unit == 1 ? p[pos + i] == 0 : (p[pos + 2 * i] == 0 && p[pos + 2 * i + 1] == 0);
      if (nul) return false;
    }
  }
  return true;
}

// True when the object graph of a binary property list is acyclic, at most
// kMaxDepth deep and at most kMaxNodes large once shared objects are copied.
bool binaryGraphIsSafe(const std::string& bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::uint64_t size = bytes.size();
  if (size < 8 + 32) return false;
  const unsigned char* trailer = p + size - 32;
  const unsigned offsetSize = trailer[6], refSize = trailer[7];
  const std::uint64_t count = bigEndian(trailer + 8, 8), top = bigEndian(trailer + 16, 8),
                      table = bigEndian(trailer + 24, 8);
  const std::uint64_t objectsEnd = size - 32;
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8) return false;
  if (count == 0 || top >= count || table < 8 || table >= objectsEnd || count > (objectsEnd - table) / offsetSize)
    return false;
  if (!binaryStringsHaveNoNul(p, objectsEnd, table, count, offsetSize)) return false;

  struct Refs {
    std::uint64_t start = 0, count = 0;
  };
  // The references held by object `index` (none for a scalar).
  auto refsOf = [&](std::uint64_t index, Refs& refs) {
    std::uint64_t at = bigEndian(p + table + index * offsetSize, offsetSize);
    if (at < 8 || at >= objectsEnd) return false;
    unsigned type = p[at] >> 4;
    if (type != 0xA && type != 0xC && type != 0xD) return true;
    std::uint64_t n = 0, pos = 0;
    if (!objectCount(p, objectsEnd, at, n, pos)) return false;
    std::uint64_t refCount = type == 0xD ? 2 * n : n;
    if (n > objectsEnd || refCount > (objectsEnd - pos) / refSize) return false;
    refs = Refs{pos, refCount};
    return true;
  };

  enum : unsigned char { kUnseen, kOpen, kDone };
  std::vector<unsigned char> state(count, kUnseen);
  std::vector<std::uint32_t> depth(count, 0);
  std::vector<std::uint64_t> nodes(count, 0);
  struct Frame {
    std::uint64_t index;
    Refs refs;
    std::uint64_t next = 0;
    std::uint32_t deepest = 0;
    std::uint64_t total = 1;
  };
  std::vector<Frame> stack;
  Refs rootRefs;
  if (!refsOf(top, rootRefs)) return false;
  state[top] = kOpen;
  stack.push_back(Frame{top, rootRefs});
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next < frame.refs.count) {
      std::uint64_t child = bigEndian(p + frame.refs.start + frame.next * refSize, refSize);
      ++frame.next;
      if (child >= count || state[child] == kOpen) return false;  // out of range, or a cycle
      if (state[child] == kDone) {
        frame.deepest = std::max(frame.deepest, depth[child]);
        frame.total += nodes[child];
        if (frame.total > kMaxNodes) return false;
        continue;
      }
      Refs refs;
      if (stack.size() >= static_cast<std::size_t>(kMaxDepth) || !refsOf(child, refs)) return false;
      state[child] = kOpen;
      stack.push_back(Frame{child, refs});
      continue;
    }
    Frame done = frame;
    stack.pop_back();
    state[done.index] = kDone;
    depth[done.index] = done.deepest + 1;
    nodes[done.index] = done.total;
    if (!stack.empty()) {
      Frame& parent = stack.back();
      parent.deepest = std::max(parent.deepest, depth[done.index]);
      parent.total += done.total;
      if (parent.total > kMaxNodes) return false;
    }
  }
  return depth[top] <= static_cast<std::uint32_t>(kMaxDepth);
}

// True when no container in an XML property list is nested deeper than
// kMaxDepth. Comments, CDATA and declarations are skipped.
bool xmlNestingIsSafe(const std::string& bytes) {
  int level = 0;
  std::size_t i = 0;
  auto skipPast = [&](const char* end) {
    std::size_t found = bytes.find(end, i);
    i = found == std::string::npos ? bytes.size() : found + std::strlen(end);
  };
  auto isTag = [&](std::size_t at, std::string_view name) {
    if (bytes.compare(at, name.size(), name) != 0) return false;
    char after = at + name.size() < bytes.size() ? bytes[at + name.size()] : '\0';
    return after == '>' || after == '/' || after == ' ' || after == '\t' || after == '\r' || after == '\n';
  };
  while ((i = bytes.find('<', i)) != std::string::npos) {
    if (bytes.compare(i, 4, "<!--") == 0) {
      skipPast("-->");
    } else if (bytes.compare(i, 9, "<![CDATA[") == 0) {
      skipPast("]]>");
    } else if (isTag(i + 1, "array") || isTag(i + 1, "dict")) {
      std::size_t close = bytes.find('>', i);
      bool empty = close != std::string::npos && bytes[close - 1] == '/';
      if (!empty && ++level > kMaxDepth) return false;
      ++i;
    } else if (isTag(i + 1, "/array") || isTag(i + 1, "/dict")) {
      if (level > 0) --level;
      ++i;
    } else {
      ++i;
    }
  }
  return true;
}

// A file descriptor that closes itself.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes now and reports whether the close (the last chance for a
  // deferred write error) succeeded.
  bool close() {
    int fd = fd_;
    fd_ = -1;
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_;
};

// Reads a whole file; none when it cannot be opened or read.
std::optional<std::string> readAll(const std::string& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return std::nullopt;
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::string bytes;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
    if (bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  }
  return bytes;
}

bool writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

MVPlistValue MVPropertyList::parse(const std::string& bytes, Format* formatOut) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return {};
  auto length = static_cast<uint32_t>(bytes.size());
  bool binary = plist_is_binary(bytes.data(), length) != 0;
  if (binary ? !binaryGraphIsSafe(bytes) : !xmlNestingIsSafe(bytes)) return {};
  plist_t raw = nullptr;
  if (binary)
    plist_from_bin(bytes.data(), length, &raw);
  else
    plist_from_xml(bytes.data(), length, &raw);
  PlistNode root(raw);
  if (!root) return {};
  MVPlistValue value = fromNode(root.get(), 0);
  if (!value.isNil() && formatOut) *formatOut = binary ? Format::Binary : Format::XML;
  return value;
}

MVPlistValue MVPropertyList::read(const std::string& path, Format* formatOut) {
  std::optional<std::string> bytes = readAll(path);
  if (!bytes) return {};
  return parse(*bytes, formatOut);
}

std::optional<std::string> MVPropertyList::serialize(const MVPlistValue& value, Format format) {
  PlistNode root = toNode(value, 0);
  if (!root) return std::nullopt;
  char* raw = nullptr;
  uint32_t length = 0;
  if (format == Format::Binary) {
    plist_to_bin(root.get(), &raw, &length);
    std::unique_ptr<char, BinBufferDeleter> buffer(raw);
    if (!buffer) return std::nullopt;
    return std::string(buffer.get(), length);
  }
  plist_to_xml(root.get(), &raw, &length);
  std::unique_ptr<char, XmlBufferDeleter> buffer(raw);
  if (!buffer) return std::nullopt;
  return std::string(buffer.get(), length);
}

bool MVPropertyList::write(const std::string& requestedPath, const MVPlistValue& value, Format format) {
  namespace fs = std::filesystem;
  std::optional<std::string> bytes = serialize(value, format);
  if (!bytes || requestedPath.empty()) return false;

  std::error_code ec;
  fs::path path(requestedPath);
  // Write through a symbolic link (a settings file kept in a synced folder)
  // instead of replacing the link with a plain file.
  if (fs::is_symlink(fs::symlink_status(path, ec))) {
    path = fs::weakly_canonical(path, ec);
    if (ec) return false;
  }
  fs::path folder = path.parent_path();
  if (folder.empty()) folder = ".";
  fs::create_directories(folder, ec);
  if (!fs::is_directory(folder, ec)) return false;

  mode_t mode = 0644;
  struct stat existing {};
  if (::stat(path.c_str(), &existing) == 0) mode = existing.st_mode & 07777;

  std::string temporary = (folder / ("." + path.filename().string() + ".XXXXXX")).string();
  FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd.valid()) return false;
  bool ok = writeAll(fd.get(), *bytes) && ::fchmod(fd.get(), mode) == 0 && ::fsync(fd.get()) == 0;
  ok = fd.close() && ok;
  if (!ok || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  // Make the rename itself durable.
  FileDescriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.valid()) ::fsync(dir.get());
  return true;
}

std::string MVGlobalPreferences::path() {
  return MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), "com.morvane.global.plist");
}

MVPlistValue MVGlobalPreferences::objectForKey(const std::string& key) { return MVPropertyList::read(path())[key]; }

bool MVGlobalPreferences::isSwitchSet(const std::string& key) {
  MVPlistValue value = objectForKey(key);
  if (const std::string* s = value.string()) return *s == "1";
  // Numbers compare by value, so integer 1, real 1.0 and boolean true all
  // equal true; 2 or 0.5 do not.
  return value.isNumber() && value.doubleValue() == 1.0;
}

bool MVGlobalPreferences::isBooleanTrue(const std::string& key) {
  MVPlistValue value = objectForKey(key);
  // Any non-zero number reads as true, as a number's boolean reading does;
  // strings are not booleans here ("defaults write ... -bool YES" is the way).
  return value.isNumber() && value.boolValue();
}
