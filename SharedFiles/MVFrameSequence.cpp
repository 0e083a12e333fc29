#include "MVFrameSequence.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>

namespace {

constexpr std::array<const char*, 14> kStillExtensions = {"exr", "dpx", "cin", "tif", "tiff", "png", "jpg",
                                                          "jpeg", "tga", "hdr", "sgi", "bmp", "jp2", "webp"};
// A frame number of more digits is a date, a hash or an identifier.
constexpr std::size_t kMaxDigits = 12;
// The log and the e-mail name this many missing frames; the count covers all.
constexpr std::size_t kMissingNamed = 50;

}  // namespace

bool MVFrameSequence::isStillExtension(const std::string& lowercaseExtension) {
  return std::find(kStillExtensions.begin(), kStillExtensions.end(), lowercaseExtension) != kStillExtensions.end();
}

std::optional<MVFrameName> MVFrameSequence::frameName(const std::string& fileName) {
  auto dot = fileName.rfind('.');
  if (dot == std::string::npos || dot == 0 || fileName[0] == '.') return std::nullopt;
  std::string ext = fileName.substr(dot + 1);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  if (!isStillExtension(ext)) return std::nullopt;
  std::size_t end = dot;
  while (end > 0 && !std::isdigit(static_cast<unsigned char>(fileName[end - 1]))) --end;
  if (end == 0) return std::nullopt;
  std::size_t begin = end;
  while (begin > 0 && std::isdigit(static_cast<unsigned char>(fileName[begin - 1]))) --begin;
  if (end - begin > kMaxDigits) return std::nullopt;
  MVFrameName frame;
  frame.prefix = fileName.substr(0, begin);
  frame.suffix = fileName.substr(end);
  frame.width = end - begin;
  frame.number = std::stoll(fileName.substr(begin, end - begin));
  return frame;
}

MVFrameSequence MVFrameSequence::gather(const std::vector<std::string>& names, const MVFrameName& member) {
  std::map<long long, const std::string*> byNumber;
  for (const std::string& name : names) {
    auto frame = frameName(name);
    if (!frame || frame->prefix != member.prefix || frame->suffix != member.suffix) continue;
    auto [it, added] = byNumber.emplace(frame->number, &name);
    // Of "f_7.png" and "f_0007.png" the padded name is the render's.
    if (!added && name.size() > it->second->size()) it->second = &name;
  }
  MVFrameSequence sequence;
  if (byNumber.empty()) return sequence;
  sequence.first = byNumber.begin()->first;
  sequence.last = byNumber.rbegin()->first;
  auto firstFrame = frameName(*byNumber.begin()->second);
  sequence.pattern = member.prefix + std::string(firstFrame ? firstFrame->width : member.width, '#') + member.suffix;
  long long expected = sequence.first;
  for (const auto& [number, name] : byNumber) {
    sequence.missingCount += number - expected;
    // A gap can be huge (frames 1 and 900000000): only the named ones are kept.
    for (; expected < number && sequence.missing.size() < kMissingNamed; ++expected) sequence.missing.push_back(expected);
    expected = number + 1;
    sequence.frames.push_back(*name);
  }
  return sequence;
}

std::string MVFrameSequence::shownName() const {
  return pattern + ", frames " + std::to_string(first) + "-" + std::to_string(last) + ", " +
         std::to_string(frames.size()) + (frames.size() == 1 ? " frame" : " frames");
}

std::string MVFrameSequence::missingDescription() const {
  if (missingCount == 0) return {};
  std::string text = std::to_string(missingCount) + (missingCount == 1 ? " frame missing: " : " frames missing: ");
  for (std::size_t i = 0; i < missing.size(); ++i) text += (i ? ", " : "") + std::to_string(missing[i]);
  if (missingCount > static_cast<long long>(missing.size())) text += ", ...";
  return text;
}
