// MVPremierePrefParser: where Adobe Premiere Pro is likely to write its
// render previews and automatic saves, read from its preference file and the
// projects it lists as recently opened.
//
// Premiere writes previews into "Adobe Premiere Pro Preview Files" folders,
// by default beside each project. The preference file (XML) is
// "<Application Support>/Adobe/Premiere Pro/<version>/Adobe Premiere Pro Prefs",
// or for newer versions "<Documents>/Adobe/Premiere Pro/<version>/Profile-<login>/
// Adobe Premiere Pro Prefs"; its "BE.Prefs.MRU.Document.*" entries name the
// recent projects. Fast mode takes each existing project's folder as its
// scratch folder; full mode opens the projects (plain XML) and reads their
// preview scratch-disk setting ("SameAsProject", "MyDocuments" or a folder).
// Whatever cannot be read is logged and replaced by the version's default
// folder "<Documents>/Adobe/Premiere Pro/<version>", so a search never fails.
//
// Platforms: folders with a given name are found with Spotlight
// ("/usr/bin/mdfind") where it exists, otherwise with plocate or locate;
// with none of them the search simply adds nothing. The "com.adobe.Common"
// preference domain is exported with "/usr/bin/defaults" where it exists,
// otherwise read from "<preferences folder>/<domain>.plist".
//
// Stateless; class operations only. Meant for the main thread (the external
// searches block their caller for up to 10 seconds).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MVXMLDocument.h"

class MVPremierePrefParser {
 public:
  using Version = std::optional<std::string>;
  using Paths = std::vector<std::string>;

  MVPremierePrefParser() = delete;

  // The folders named "Adobe Premiere Pro Preview Files" and "Adobe Premiere
  // Pro Auto-Save" that Premiere writes into.
  static constexpr const char* kPreviewFolderName = "Adobe Premiere Pro Preview Files";
  static constexpr const char* kAutosaveFolderName = "Adobe Premiere Pro Auto-Save";

  // The scratch folders of the recent projects of one version, or of every
  // installed version (7.0 when none is found). In discovery order, each
  // scratch folder once; a version's default folder may appear repeatedly.
  static Paths recentScratchDisks(const Version& version = std::nullopt, bool fastQuery = true);
  // Every scratch folder + the preview folder name (duplicates and order
  // kept), then the found folders of that name not listed yet.
  static Paths recentRenderPaths(const Version& version = std::nullopt, bool fastQuery = true);
  // The same for the auto-save folder name.
  static Paths recentAutosavePaths(const Version& version = std::nullopt, bool fastQuery = true);

  // The parsed preference document of a version ("6.0.0" reads 6.0's), or none.
  static std::optional<MVXMLDocument> xmlDocumentForVersion(const std::string& version);
  // Folders whose last path component is `name` (case ignored); none when no
  // search tool is available or it found nothing.
  static std::optional<Paths> spotlightSearchForFoldersWithName(const std::string& name);

  // Sets the text of every node the XPath selects in the version's preference
  // file and writes the file back, indented; false when anything fails.
  [[nodiscard]] static bool setStringValue(const std::string& value, const std::string& forNodesWithXPath,
                                           const std::string& version);

  // "Media Cache" -> "FolderPath" / "DatabasePath" of the "com.adobe.Common
  // <major>.0" preference domain ("com.adobe.Common" without a version).
  static Paths mediaCacheFolders();
  static std::optional<std::string> mediaCacheFolder(const Version& version);
  static Paths mediaDatabaseFolders();
  static std::optional<std::string> mediaDatabaseFolder(const Version& version);

  // Test seam: a program used instead of plocate/locate when Spotlight is
  // missing (called with the same arguments); nullopt restores the search.
  static void setFolderSearchToolForTesting(const std::optional<std::string>& path);

 private:
  static Paths recentPathsWithFolderName(const std::string& folderName, const Version& version, bool fastQuery);
  static std::optional<std::string> mediaCacheValue(const std::string& key, const Version& version);
};
