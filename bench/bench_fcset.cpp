// The Final Cut Pro preference scan: the .fcset file is read as raw bytes and
// walked for the length-prefixed location keys. It runs when the watcher
// starts and whenever the preference folder changes (at most every 30 s);
// while the file's date is unchanged a small cache answers instead.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>
#include <string>

#include "MVFCPPrefParser.h"
#include "bench_support.h"

namespace {

std::string pascal(const std::string& s) { return std::string(1, static_cast<char>(s.size())) + s; }

// Binary bytes between fields, neither printable nor NUL.
const std::string kGap = "\x01\x02\x83\x04\xfe\x06\x17\x08";

std::string entry(const std::string& key, const std::string& value) {
  return pascal(key) + kGap + pascal(value) + std::string(4, '\0') + kGap;
}

std::string noise(std::size_t length, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(length, '\0');
  for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
  return bytes;
}

// A preference file of about `kilobytes` KB: binary settings with the eight
// locations spread through it, the last near the end, so the scan walks it all.
std::string preferenceFile(int kilobytes) {
  const std::string path = quillon_bench::benchHome() + "/fcp-" + std::to_string(kilobytes) + "/Final Cut Pro 7.0 Prefs.fcset";
  if (std::filesystem::exists(path)) return path;
  const std::pair<const char*, const char*> locations[] = {
      {"render", "Media:Renders:Documentary Project 2024"},
      {"audiorender", "Media:Renders:Audio Render Files"},
      {"capture", "Macintosh HD:Users:ann:Capture"},
      {"audiocapture", "Macintosh HD:Users:ann:Capture"},
      {"scratch", "Macintosh HD:Users:ann:Scratch"},
      {"waveform", "Media:Cache"},
      {"thumbnail", "Media:Cache:Thumbnail Cache Files"},
      {"autoSaveVault", "Backup:Vault"},
  };
  const std::size_t stretch = static_cast<std::size_t>(kilobytes) * 1024 / 8;
  std::string bytes;
  unsigned seed = 1;
  for (const auto& [key, value] : locations) bytes += noise(stretch - 120, seed++) + kGap + entry(key, value);
  quillon_bench::writeFile(path, bytes);
  return path;
}

void removeCache() {
  std::error_code ec;
  std::filesystem::remove(MVFCPPrefParser::cacheFilePath(), ec);
}

// The full scan (the cache is removed before each round): read the file,
// walk it, derive the missing locations, write the cache.
void BM_FCPPreferenceScan(benchmark::State& state) {
  const std::string path = preferenceFile(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    removeCache();
    state.ResumeTiming();
    MVFCPPrefParser parser;
    parser.setPreferenceFilePath(path);
    parser.loadDataForTypes(std::nullopt);
    benchmark::DoNotOptimize(parser.renderPath());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<long long>(std::filesystem::file_size(path)));
}
BENCHMARK(BM_FCPPreferenceScan)->Arg(64)->Arg(512)->Unit(benchmark::kMicrosecond);

// The usual case: the preference file is unchanged and the cache answers.
void BM_FCPPreferenceCached(benchmark::State& state) {
  const std::string path = preferenceFile(64);
  removeCache();
  {
    MVFCPPrefParser first;
    first.setPreferenceFilePath(path);
    first.loadDataForTypes(std::nullopt);
  }
  for (auto _ : state) {
    MVFCPPrefParser parser;
    parser.setPreferenceFilePath(path);
    parser.loadDataForTypes(std::nullopt);
    benchmark::DoNotOptimize(parser.renderPath());
  }
}
BENCHMARK(BM_FCPPreferenceCached)->Unit(benchmark::kMicrosecond);

}  // namespace
