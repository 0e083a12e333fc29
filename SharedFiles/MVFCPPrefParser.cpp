#include "MVFCPPrefParser.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string_view>

#include "MVFormat.h"
#include "MVLocalPaths.h"
#include "MVPlistValue.h"
#include "MVPropertyList.h"

namespace fs = std::filesystem;

namespace {

// The parser's few problems go to the system console, not to the log file.
template <typename... Args>
void consoleLine(std::string_view format, const Args&... args) {
  std::string line = MVFormatString(format, args...);
  if (line.empty() || line.back() != '\n') line += '\n';
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
}

std::mutex gSeamMutex;
std::optional<std::string> gApplicationsFolder;
std::optional<std::optional<std::string>> gBootVolumeName;

// ---- paths, as the platform's string objects handle them ----

std::string stripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string lastPathComponent(const std::string& path) {
  std::string stripped = stripTrailingSlashes(path);
  if (stripped == "/") return stripped;
  std::size_t slash = stripped.rfind('/');
  return slash == std::string::npos ? stripped : stripped.substr(slash + 1);
}

std::string parentPath(const std::string& path) {
  std::string stripped = stripTrailingSlashes(path);
  std::size_t slash = stripped.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return stripped.substr(0, slash);
}

std::string appending(const std::string& path, const std::string& component) {
  return MVAppendPathComponent(stripTrailingSlashes(path), component);
}

std::string endingWithFolder(const std::string& path, const std::string& folder) {
  return lastPathComponent(path) == folder ? path : appending(path, folder);
}

// ---- the scanner's character classes ----

// Values are runs of printable characters: ASCII from the blank to "~", the
// section sign and the plus-minus sign, and NUL, which pads the fixed-size
// fields that values sit in. Everything else (length bytes, binary numbers)
// separates them.
bool isSeparator(unsigned char c) {
  if (c == 0 || (c >= 0x20 && c <= 0x7E)) return false;
  return c != 0xA7 && c != 0xB1;
}

bool hasSeparator(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return isSeparator(static_cast<unsigned char>(c)); });
}

std::string_view trimSeparators(std::string_view text) {
  while (!text.empty() && isSeparator(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && isSeparator(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return text;
}

std::vector<std::string> splitAtSeparators(std::string_view text) {
  std::vector<std::string> parts(1);
  for (char c : text) {
    if (isSeparator(static_cast<unsigned char>(c))) parts.emplace_back();
    else parts.back() += c;
  }
  return parts;
}

std::string trimNuls(std::string_view text) {
  while (!text.empty() && text.front() == '\0') text.remove_prefix(1);
  while (!text.empty() && text.back() == '\0') text.remove_suffix(1);
  return std::string(text);
}

std::string trimNonAlphanumerics(std::string_view text) {
  auto alnum = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  };
  while (!text.empty() && !alnum(text.front())) text.remove_prefix(1);
  while (!text.empty() && !alnum(text.back())) text.remove_suffix(1);
  return std::string(text);
}

// The file's characters are single bytes; the two printable ones above
// ASCII are Latin-1. Paths handed on are UTF-8.
std::string utf8FromLatin1(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (char ch : bytes) {
    auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out += ch;
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// Length in characters (UTF-8 lead bytes) and the first character's code.
std::size_t characterCount(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::size_t firstCharacterLength(const std::string& text) {
  std::size_t length = 1;
  while (length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) ++length;
  return length;
}

unsigned firstCharacterCode(const std::string& text) {
  auto lead = static_cast<unsigned char>(text[0]);
  std::size_t length = firstCharacterLength(text);
  if (length == 1) return lead;
  unsigned code = lead & (0xFFu >> (length + 1));
  for (std::size_t k = 1; k < length; ++k) code = (code << 6) | (static_cast<unsigned char>(text[k]) & 0x3F);
  return code;
}

// The keys as they stand in the file: a length byte, then the name. A
// marker matches as a prefix, so the 14 letters of "searchLocation" also
// catch "searchLocations".
const std::array<std::string, 9>& markers() {
  static const std::array<std::string, 9> list = {
      std::string("\x0b" "audiorender"), std::string("\x06" "render"),
      std::string("\x0c" "audiocapture"), std::string("\x07" "capture"),
      std::string("\x07" "scratch"),     std::string("\x08" "waveform"),
      std::string("\x09" "thumbnail"),   std::string("\x0d" "autoSaveVault"),
      std::string("\x0f" "searchLocation"),
  };
  return list;
}

bool isKeyName(const std::string& part) {
  static const std::array<const char*, 9> names = {"audiorender", "render",    "audiocapture",
                                                   "capture",     "scratch",   "waveform",
                                                   "thumbnail",   "autoSaveVault", "searchLocations"};
  return std::any_of(names.begin(), names.end(), [&](const char* name) { return part == name; });
}

MVPlistValue::Date wholeSecond(long long secondsSince1970) {
  return MVPlistValue::Date(std::chrono::seconds(secondsSince1970));
}

// "\x20" in a udev link name stands for a blank.
std::string decodeLabel(const std::string& name) {
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x' && std::isxdigit(static_cast<unsigned char>(name[i + 2])) &&
        std::isxdigit(static_cast<unsigned char>(name[i + 3]))) {
      out += static_cast<char>(std::stoi(name.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      out += name[i];
    }
  }
  return out;
}

// Mount tables escape blanks, tabs, newlines and backslashes as "\ooo".
std::string decodeMountField(const std::string& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const std::string digits = field.substr(i + 1, 3);
      if (digits.size() == 3 && std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '7'; })) {
        out += static_cast<char>(std::stoi(digits, nullptr, 8));
        i += 3;
        continue;
      }
    }
    out += field[i];
  }
  return out;
}

}  // namespace

// ---- construction ----

MVFCPPrefParser::MVFCPPrefParser(bool finalCutExpress) : isFCE_(finalCutExpress) {}

MVFCPPrefParser MVFCPPrefParser::initWithFinalCutExpress() { return MVFCPPrefParser(true); }

std::string MVFCPPrefParser::applicationName() const { return isFCE_ ? "Final Cut Express" : "Final Cut Pro"; }

std::string MVFCPPrefParser::cacheFilePath() {
  return MVAppendPathComponent(MVLocalPaths::cacheDirectory(true), "com.morvane.Lanthorn.cache.plist");
}

void MVFCPPrefParser::setApplicationsFolderForTesting(const std::optional<std::string>& folder) {
  std::lock_guard lock(gSeamMutex);
  gApplicationsFolder = folder;
}

void MVFCPPrefParser::setBootVolumeNameForTesting(const std::optional<std::optional<std::string>>& name) {
  std::lock_guard lock(gSeamMutex);
  gBootVolumeName = name;
}

// ---- locating the application and its preference file ----

MVFCPPrefParser::Path MVFCPPrefParser::fcpBundlePath() const {
  std::string applications = "/Applications";
  {
    std::lock_guard lock(gSeamMutex);
    if (gApplicationsFolder) applications = *gApplicationsFolder;
  }
  std::vector<std::string> candidates;
  if (isFCE_) {
    candidates = {"Final Cut Express.app"};
  } else {
    candidates = {"Final Cut Studio/Final Cut Pro.app", "Final Cut Pro.app"};
  }
  for (const std::string& candidate : candidates) {
    std::string path = MVAppendPathComponent(applications, candidate);
    std::error_code ec;
    if (fs::exists(path, ec)) return path;
  }
  // Elsewhere than macOS there are no loaded application bundles to ask.
  return std::nullopt;
}

MVFCPPrefParser::Path MVFCPPrefParser::preferenceFilePath() {
  if (preferenceFilePath_) return preferenceFilePath_;
  const char* edition = isFCE_ ? "Express" : "Pro";
  Path bundle = fcpBundlePath();
  if (!bundle) {
    setNil();
    return std::nullopt;
  }
  MVPlistValue info = MVPropertyList::read(MVAppendPathComponent(*bundle, "Contents/Info.plist"));
  if (!info.isDictionary()) {
    consoleLine("Unable to find Final Cut %@ info plist.", edition);
    setNil();
    return std::nullopt;
  }
  const std::string* version = info["CFBundleShortVersionString"].string();
  if (!version || version->empty()) {
    consoleLine("Unable to locate Final Cut %@ version number.", edition);
    return std::nullopt;
  }
  // Preferences are kept per major version: 7.0.3 reads "7.0".
  std::string major = version->substr(0, firstCharacterLength(*version)) + ".0";
  std::string file = isFCE_ ? MVFormatString("Final Cut Express User Data/Final Cut Express %@ Prefs.fcset", major)
                            : MVFormatString("Final Cut Pro User Data/Final Cut Pro %@ Prefs.fcset", major);
  preferenceFilePath_ = MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), file);
  return preferenceFilePath_;
}

std::optional<long long> MVFCPPrefParser::preferenceFileModificationDate() {
  Path path = preferenceFilePath();
  if (!path) return std::nullopt;
  struct stat info {};
  if (stat(path->c_str(), &info) != 0) return std::nullopt;
  return static_cast<long long>(info.st_mtim.tv_sec);
}

// ---- boot volume ----

std::optional<std::string> MVFCPPrefParser::bootVolumeName() {
  {
    std::lock_guard lock(gSeamMutex);
    if (gBootVolumeName) return *gBootVolumeName;
  }
  return volumeLabelForMountPoint("/", "/proc/self/mountinfo", "/dev/disk/by-label");
}

std::optional<std::string> MVFCPPrefParser::volumeLabelForMountPoint(const std::string& mountPoint,
                                                                     const std::string& mountInfoPath,
                                                                     const std::string& labelFolder) {
  std::ifstream table(mountInfoPath);
  if (!table) return std::nullopt;
  std::string source;
  unsigned major = 0, minor = 0;
  bool found = false;
  std::string line;
  // "36 35 98:0 /root /mount/point options [optional fields] - fstype source super-options".
  // The last mount on a point is the one in effect.
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::vector<std::string> parts{std::istream_iterator<std::string>(fields), std::istream_iterator<std::string>()};
    if (parts.size() < 5 || decodeMountField(parts[4]) != mountPoint) continue;
    auto dash = std::find(parts.begin() + 5, parts.end(), "-");
    if (dash == parts.end() || std::distance(dash, parts.end()) < 3) continue;
    source = decodeMountField(*(dash + 2));
    if (std::sscanf(parts[2].c_str(), "%u:%u", &major, &minor) != 2) major = minor = 0;
    found = true;
  }
  if (!found) return std::nullopt;

  std::error_code ec;
  fs::path sourcePath;
  if (!source.empty() && source.front() == '/') sourcePath = fs::canonical(source, ec);
  if (ec) sourcePath.clear();
  for (fs::directory_iterator it(labelFolder, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code linkError;
    fs::path target = fs::canonical(it->path(), linkError);
    if (linkError) continue;
    bool matches = !sourcePath.empty() && target == sourcePath;
    struct stat device {};
    if (!matches && major != 0 && stat(target.c_str(), &device) == 0 && S_ISBLK(device.st_mode))
      matches = ::major(device.st_rdev) == major && ::minor(device.st_rdev) == minor;
    if (matches) return decodeLabel(it->path().filename().string());
  }
  return std::nullopt;
}

std::string MVFCPPrefParser::defaultRootFolder() const {
  return MVAppendPathComponent(MVLocalPaths::documentDirectory(true),
                               isFCE_ ? "Final Cut Express Documents" : "Final Cut Pro Documents");
}

// ---- paths ----

void MVFCPPrefParser::setNil() {
  renderPath_.reset();
  audioRenderPath_.reset();
  captureScratchPath_.reset();
  audioCaptureScratchPath_.reset();
  scratchPath_.reset();
  waveformCachePath_.reset();
  thumbnailCachePath_.reset();
  autosavePath_.reset();
}

std::string MVFCPPrefParser::formatPath(const std::string& path) const {
  std::string classic = trimNuls(path);
  if (!classic.empty()) {
    // Classic paths are often stored as Pascal strings: a first character
    // whose code is the length of the rest is that length, not a letter.
    unsigned code = firstCharacterCode(classic) & 0xFF;
    if (code == characterCount(classic) - 1 || code == 0) classic.erase(0, firstCharacterLength(classic));
  }
  std::vector<std::string> components;
  std::size_t start = 0;
  while (true) {
    std::size_t colon = classic.find(':', start);
    components.push_back(trimNuls(std::string_view(classic).substr(start, colon == std::string::npos ? std::string::npos : colon - start)));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  std::optional<std::string> bootVolume = bootVolumeName();
  if (bootVolume && components.front() == *bootVolume) components.erase(components.begin());
  else components.insert(components.begin(), "Volumes");
  std::string result;
  for (std::size_t i = 0; i < components.size(); ++i) {
    if (i) result += '/';
    result += components[i];
  }
  return "/" + result;
}

void MVFCPPrefParser::setPathForKey(const std::string& key, const std::vector<std::string>& withArray) {
  std::string name = trimNonAlphanumerics(key);
  auto candidate = std::find_if(withArray.begin(), withArray.end(), [](const std::string& value) {
    std::size_t colon = value.find(':');
    return colon != std::string::npos && colon > 0 && colon + 1 < value.size();
  });
  if (candidate == withArray.end()) return;
  std::string path = formatPath(*candidate);

  if (name == "audiorender") audioRenderPath_ = endingWithFolder(path, "Audio Render Files");
  else if (name == "render") renderPath_ = endingWithFolder(path, "Render Files");
  else if (name == "audiocapture") audioCaptureScratchPath_ = endingWithFolder(path, "Audio Capture Scratch");
  else if (name == "capture") captureScratchPath_ = endingWithFolder(path, "Capture Scratch");
  else if (name == "scratch") scratchPath_ = path;
  else if (name == "waveform") waveformCachePath_ = endingWithFolder(path, "Waveform Cache Files");
  else if (name == "thumbnail") thumbnailCachePath_ = endingWithFolder(path, "Thumbnail Cache Files");
  else if (name == "autoSaveVault") autosavePath_ = endingWithFolder(path, "Autosave Vault");
}

void MVFCPPrefParser::setupDefaults() {
  // Final Cut derives every location it was not told from the scratch
  // folder, and the scratch folder from the capture folders.
  if (!scratchPath_ && !captureScratchPath_ && !audioCaptureScratchPath_) scratchPath_ = defaultRootFolder();
  if (audioCaptureScratchPath_ && !captureScratchPath_) captureScratchPath_ = parentPath(*audioCaptureScratchPath_);
  if (captureScratchPath_ && !scratchPath_) scratchPath_ = parentPath(*captureScratchPath_);
  if (!waveformCachePath_ && !thumbnailCachePath_ && !autosavePath_ && scratchPath_) {
    waveformCachePath_ = appending(*scratchPath_, "Waveform Cache Files");
    thumbnailCachePath_ = appending(*scratchPath_, "Thumbnail Cache Files");
    autosavePath_ = appending(*scratchPath_, "Autosave Vault");
  }
  if (!captureScratchPath_ && scratchPath_) captureScratchPath_ = appending(*scratchPath_, "Capture Scratch");
  if (!audioCaptureScratchPath_) audioCaptureScratchPath_ = captureScratchPath_;
  if (!renderPath_ && scratchPath_) renderPath_ = appending(*scratchPath_, "Render Files");
  if (!audioRenderPath_ && renderPath_) audioRenderPath_ = appending(parentPath(*renderPath_), "Audio Render Files");
  if (thumbnailCachePath_ && !waveformCachePath_ && !autosavePath_)
    autosavePath_ = appending(parentPath(*thumbnailCachePath_), "Autosave Vault");
  if (waveformCachePath_ && !autosavePath_)
    autosavePath_ = appending(parentPath(*waveformCachePath_), "Autosave Vault");
  if (autosavePath_ && !waveformCachePath_)
    waveformCachePath_ = appending(parentPath(*autosavePath_), "Waveform Cache Files");
  if (waveformCachePath_ && !thumbnailCachePath_)
    thumbnailCachePath_ = appending(parentPath(*waveformCachePath_), "Thumbnail Cache Files");
  if (!waveformCachePath_) {
    if (scratchPath_) waveformCachePath_ = appending(*scratchPath_, "Waveform Cache Files");
    consoleLine("waveform is empty");
  }
  if (!thumbnailCachePath_) {
    if (waveformCachePath_) thumbnailCachePath_ = appending(parentPath(*waveformCachePath_), "Thumbnail Cache Files");
    consoleLine("thumbnail is empty");
  }
  if (!autosavePath_) {
    autosavePath_ = appending(defaultRootFolder(), "Autosave Vault");
    consoleLine("autosave is empty");
  }
}

// ---- cache ----

bool MVFCPPrefParser::loadCacheData() {
  std::optional<long long> modified = preferenceFileModificationDate();
  if (!modified) return false;
  MVPlistValue cache = MVPropertyList::read(cacheFilePath());
  if (!cache.isDictionary()) return false;
  const MVPlistValue& entry = cache[applicationName()];
  if (!entry.isDictionary()) return false;
  std::optional<MVPlistValue::Date> cached = entry["modDate"].date();
  if (!cached) return false;
  if (std::chrono::floor<std::chrono::seconds>(*cached) != wholeSecond(*modified)) return false;

  setNil();
  auto take = [&](const char* key) -> Path {
    if (const std::string* value = entry[key].string()) return *value;
    return std::nullopt;
  };
  renderPath_ = take("render");
  audioRenderPath_ = take("audioRender");
  captureScratchPath_ = take("capture");
  audioCaptureScratchPath_ = take("audioCapture");
  scratchPath_ = take("scratch");
  waveformCachePath_ = take("waveform");
  thumbnailCachePath_ = take("thumbnail");
  autosavePath_ = take("autosaveVault");
  setupDefaults();
  dataIsLoaded_ = true;
  return true;
}

void MVFCPPrefParser::cacheData() {
  std::optional<long long> modified = preferenceFileModificationDate();
  if (!modified) return;
  // Dates are kept to the second: that is what a property-list file holds.
  MVPlistValue entry;
  entry.set("modDate", wholeSecond(*modified));
  auto put = [&](const char* key, const Path& value) {
    if (value) entry.set(key, *value);
  };
  put("render", renderPath_);
  put("audioRender", audioRenderPath_);
  put("capture", captureScratchPath_);
  put("audioCapture", audioCaptureScratchPath_);
  put("scratch", scratchPath_);
  put("waveform", waveformCachePath_);
  put("thumbnail", thumbnailCachePath_);
  put("autosaveVault", autosavePath_);

  // The cache is rebuilt rather than merged: it holds the entry of the
  // application read last, so an entry can never outlive its file.
  MVPlistValue cache = MVPropertyList::read(*preferenceFilePath());
  if (!cache.isDictionary()) cache = MVPlistValue(MVPlistValue::Dictionary{});
  cache.set(applicationName(), entry);
  if (!MVPropertyList::write(cacheFilePath(), cache))
    consoleLine("Unable to write Final Cut cache file %@", cacheFilePath());
}

// ---- loading and scanning ----

void MVFCPPrefParser::loadData() { loadDataForTypes(std::nullopt); }

void MVFCPPrefParser::loadDataForTypes(const TypeList& types) {
  if (loadCacheData()) return;
  TypeList workingList = types;
  setNil();
  if (!scanPreferenceFile(workingList)) return;
  setupDefaults();
  cacheData();
  dataIsLoaded_ = true;
}

bool MVFCPPrefParser::scanPreferenceFile(TypeList& workingList) {
  Path path = preferenceFilePath();
  std::string bytes;
  bool readable = false;
  if (path) {
    std::ifstream in(*path, std::ios::binary);
    if (in) {
      bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      readable = !in.bad();
    }
  }
  if (!readable) {
    consoleLine(isFCE_ ? "Unable to load Final Cut Express preference file %@"
                       : "Unable to load Final Cut Pro preference file %@",
                path ? MVFormatArg(*path) : MVFormatArg());
    setNil();
    return false;
  }
  // Below 16 bytes there is not even one key with its value: such a file is
  // damaged, and guessing defaults from it would hide that.
  if (bytes.size() < 16) {
    consoleLine("The Final Cut %@ preference file %@ is too short to read (%lu bytes).", isFCE_ ? "Express" : "Pro",
                *path, bytes.size());
    return false;
  }
  scan(bytes, workingList);
  return true;
}

bool MVFCPPrefParser::flush(const std::string& key, const std::vector<std::string>& values, TypeList& workingList) {
  std::vector<std::string> paths;
  paths.reserve(values.size());
  for (const std::string& value : values) paths.push_back(utf8FromLatin1(value));
  setPathForKey(key, paths);
  if (!workingList) return false;
  std::string name = trimNonAlphanumerics(key);
  std::erase(*workingList, name);
  return workingList->empty();
}

void MVFCPPrefParser::scan(const std::string& bytes, TypeList& workingList) {
  // Keys are Pascal strings; the value that follows a key is a run of
  // printable characters, often a classic path with its own length byte and
  // NUL padding. The file is walked in 15-character slices: one character
  // at a time while looking for a key, a whole slice at a time inside a
  // key's value region, which ends 400 characters after the key.
  constexpr std::size_t kSlice = 15;
  constexpr std::size_t kValueRegion = 400;
  std::optional<std::string> key;
  std::size_t keyPosition = 0;
  std::string value;
  std::vector<std::string> values;

  auto startKey = [&](const std::string& name, std::size_t position) {
    key = name;
    keyPosition = position;
    value.clear();
    values.clear();
  };

  const std::size_t length = bytes.size();
  std::size_t i = 0;
  while (i + 16 < length) {
    const std::string_view slice(bytes.data() + i, kSlice);
    const std::string_view trimmed = trimSeparators(slice);
    if (trimmed.empty()) {
      ++i;
      continue;
    }
    const bool atMarker = std::any_of(markers().begin(), markers().end(),
                                      [&](const std::string& marker) { return slice.starts_with(marker); });
    if (atMarker) {
      if (key && flush(*key, values, workingList)) return;
      startKey(std::string(trimmed), i);
      i += key->size();
      continue;
    }
    if (key && i - keyPosition > kValueRegion) {
      if (flush(*key, values, workingList)) return;
      key.reset();
      ++i;
      continue;
    }
    if (!key) {
      ++i;
      continue;
    }
    if (!hasSeparator(slice)) {
      value.append(slice);
      i += kSlice;
      continue;
    }

    // The slice holds the end of one run and maybe the start of others. A
    // key among its parts stores the key before it with the values completed
    // so far and starts its own list; the run still pending is completed
    // only after that, so it goes to the new key.
    const std::vector<std::string> parts = splitAtSeparators(slice);
    const bool beginsWithSeparator = isSeparator(static_cast<unsigned char>(slice.front()));
    const bool endsWithSeparator = isSeparator(static_cast<unsigned char>(slice.back()));
    const bool hadValue = !value.empty();
    // A run continued from the last slice counts as one word, so a key split
    // across two slices is still recognised.
    const std::string first = (hadValue && !beginsWithSeparator) ? value + parts.front() : parts.front();
    bool keyFound = false;
    for (std::size_t index = 0; index < parts.size(); ++index) {
      const std::string& part = index == 0 ? first : parts[index];
      if (!isKeyName(part)) continue;
      if (flush(*key, values, workingList)) return;
      key = part;
      keyPosition = i;
      values.clear();
      keyFound = true;
    }
    if (hadValue) {
      if (beginsWithSeparator) {
        values.push_back(value);
        value.clear();
      } else if (!keyFound) {
        value = first;
        if (parts.size() > 1) {
          values.push_back(value);
          value.clear();
        }
      }
    }
    // Short runs between separators are numbers and flags, not paths.
    for (std::size_t index = 1; index + 1 < parts.size(); ++index)
      if (parts[index].size() > 7) values.push_back(parts[index]);
    if (parts.size() > 1) {
      if (endsWithSeparator) values.push_back(parts.back());
      else value = parts.back();
    }
    i += kSlice;
  }
  // A key still open when the data ends is not stored: only the next key or
  // the end of its value region stores one.
}
