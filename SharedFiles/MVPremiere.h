// MVPremiere: which versions of Adobe Premiere Pro are installed.
//
// Installations are folders named after the product ("Adobe Premiere Pro CC
// 2014") in the folder that holds the installed application's own folder
// (found by its bundle identifier "com.adobe.AdobePremierePro") and in the
// machine's applications folder. An installation's version comes from its
// application bundle "<folder>/<name>/<name>.app" ("CFBundleVersionString",
// else "CFBundleVersion") or, without a bundle, from the installer's
// "<folder>/<name>/Configuration/XManConfig.xml" ("ProductVersion").
//
// Platforms: the applications folder is "/Applications" on macOS and the
// machine's applications folder of MVLocalPaths elsewhere, where Premiere is
// normally absent and the lists are empty.
//
// Stateless; class operations only; any thread.
#pragma once

#include <string>
#include <vector>

class MVPremiere {
 public:
  using Versions = std::vector<std::string>;

  MVPremiere() = delete;

  // versionsForAppName("Adobe Premiere ").
  static Versions premiereVersions();
  // The versions in the installed application's folder, then those in the
  // applications folder that are not listed yet.
  static Versions versionsForAppName(const std::string& name);
  // The versions of the entries of one folder whose names begin with `name`
  // (case ignored), in name order.
  static Versions versionsForAppName(const std::string& name, const std::string& inFolder);

  // Versions of suite installations: the installer's product version, else
  // the "Adobe Premiere Pro *.app" bundle version cut to "major.minor".
  static Versions suiteVersions();
  static Versions suiteVersionsInFolder(const std::string& folder);

  // The product version in an installation's XManConfig.xml, or "".
  static std::string productVersionInInstallation(const std::string& installationFolder);
};
