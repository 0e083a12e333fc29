// MVFCPPrefParser: where Final Cut Pro (or Final Cut Express) keeps its
// render files and other scratch folders, read from its binary preference
// file (".fcset").
//
// The preference file is found through the application's version:
// "<Preferences>/Final Cut Pro User Data/Final Cut Pro 7.0 Prefs.fcset" for
// version 7.x. The scanner reads the file as raw bytes and picks the
// colon-separated classic paths ("Media:Renders:Proj") that follow the
// length-prefixed keys ("render", "capture", ...); a classic path on the
// boot volume becomes "/Users/...", one on another volume "/Volumes/...".
// Missing locations are derived from the ones found (see setupDefaults).
//
// What was found is cached in "com.morvane.Lanthorn.cache.plist" in the
// user's caches folder, under "Final Cut Pro" or "Final Cut Express", and
// reused without opening the preference file for as long as that file's
// modification date (to the second) is unchanged.
//
// Platforms: the application is looked for in "/Applications" (and, on
// macOS, among the loaded bundles). The boot volume's display name is, on
// Linux, the label of the file system mounted at "/" (none without a
// label). Problems are written to the system console (standard error),
// never to the log file.
//
// A parser is an ordinary value used by one thread; it holds no resources.
#pragma once

#include <optional>
#include <string>
#include <vector>

class MVFCPPrefParser {
 public:
  using Path = std::optional<std::string>;
  using TypeList = std::optional<std::vector<std::string>>;

  // A parser for Final Cut Pro, or for Final Cut Express.
  explicit MVFCPPrefParser(bool finalCutExpress = false);
  static MVFCPPrefParser initWithFinalCutExpress();

  // Fills the locations of the given types ("render", "capture", ...; none
  // means all) from the cache or the preference file, then derives the
  // rest. Finding the requested types ends the scan early.
  void loadData();
  void loadDataForTypes(const TypeList& types);
  // Takes the locations from the cache when its entry matches the
  // preference file's modification date.
  bool loadCacheData();
  // Stores the current locations as this application's cache entry.
  void cacheData();
  void saveData() {}

  // Clears all eight locations.
  void setNil();
  // Takes the first candidate that is a classic path (a ":" inside it),
  // converts it and stores it under the key's location, ending it with the
  // location's folder name. Keys other than the eight locations are ignored.
  void setPathForKey(const std::string& key, const std::vector<std::string>& withArray);
  // Fills what is still missing from what is known.
  void setupDefaults();
  // "Macintosh HD:Users:ann" gives "/Users/ann" when the boot volume is
  // named "Macintosh HD"; "Media:FCP" gives "/Volumes/Media/FCP". A leading
  // length byte and NUL padding are removed.
  std::string formatPath(const std::string& path) const;

  // The display name of the volume mounted at "/", or none.
  static std::optional<std::string> bootVolumeName();
  // "<Documents>/Final Cut Pro Documents" (or "Final Cut Express Documents").
  std::string defaultRootFolder() const;

  // The preference file; computed once from the application's version.
  Path preferenceFilePath();
  void setPreferenceFilePath(const Path& path) { preferenceFilePath_ = path; }
  // The application bundle, or none when it is not installed.
  Path fcpBundlePath() const;

  const Path& renderPath() const { return renderPath_; }
  const Path& audioRenderPath() const { return audioRenderPath_; }
  const Path& captureScratchPath() const { return captureScratchPath_; }
  const Path& audioCaptureScratchPath() const { return audioCaptureScratchPath_; }
  const Path& scratchPath() const { return scratchPath_; }
  const Path& waveformCachePath() const { return waveformCachePath_; }
  const Path& thumbnailCachePath() const { return thumbnailCachePath_; }
  const Path& autosavePath() const { return autosavePath_; }
  void setRenderPath(const Path& path) { renderPath_ = path; }
  void setAudioRenderPath(const Path& path) { audioRenderPath_ = path; }
  void setCaptureScratchPath(const Path& path) { captureScratchPath_ = path; }
  void setAudioCaptureScratchPath(const Path& path) { audioCaptureScratchPath_ = path; }
  void setScratchPath(const Path& path) { scratchPath_ = path; }
  void setWaveformCachePath(const Path& path) { waveformCachePath_ = path; }
  void setThumbnailCachePath(const Path& path) { thumbnailCachePath_ = path; }
  void setAutosavePath(const Path& path) { autosavePath_ = path; }

  bool dataIsLoaded() const { return dataIsLoaded_; }
  bool isFCE() const { return isFCE_; }

  // "Final Cut Pro" or "Final Cut Express": the cache entry's name.
  std::string applicationName() const;
  // The cache file "com.morvane.Lanthorn.cache.plist" in the user's caches.
  static std::string cacheFilePath();

  // The label of the file system mounted at `mountPoint`, found through a
  // mountinfo table and a folder of label links (udev's by-label folder,
  // whose names escape unsafe characters as "\xNN").
  static std::optional<std::string> volumeLabelForMountPoint(const std::string& mountPoint,
                                                             const std::string& mountInfoPath,
                                                             const std::string& labelFolder);

  // Test seams: the folder searched instead of "/Applications", and a boot
  // volume name used instead of the system's (nullopt restores both).
  static void setApplicationsFolderForTesting(const std::optional<std::string>& folder);
  static void setBootVolumeNameForTesting(const std::optional<std::optional<std::string>>& name);

 private:
  // Runs the scan over the preference file's bytes; false when the file
  // could not be read or is too short to hold any setting.
  bool scanPreferenceFile(TypeList& workingList);
  void scan(const std::string& bytes, TypeList& workingList);
  bool flush(const std::string& key, const std::vector<std::string>& values, TypeList& workingList);
  std::optional<long long> preferenceFileModificationDate();

  Path renderPath_;
  Path audioRenderPath_;
  Path captureScratchPath_;
  Path audioCaptureScratchPath_;
  Path scratchPath_;
  Path waveformCachePath_;
  Path thumbnailCachePath_;
  Path autosavePath_;
  Path preferenceFilePath_;
  bool dataIsLoaded_ = false;
  bool isFCE_ = false;
};
