// MVWorkspace: the desktop around the agent: the file manager, the
// applications that open files, and which application the user works in.
//
// Every operation may be called from any thread and returns at once; what
// it starts (a file-manager window, an application) runs on its own. The
// boolean results say whether the request could be made, not whether the
// user saw anything.
//
// Linux: revealing asks org.freedesktop.FileManager1 (ShowItems) on the
// session bus and falls back to opening the containing folder with its
// default application; files open with the default application of their
// content type (GIO); an application is a .desktop file or id, an
// executable (started with the file as its one argument), or an
// application's name. The frontmost application comes from X11
// (_NET_ACTIVE_WINDOW, its WM_CLASS class or the process behind
// _NET_WM_PID); where it cannot be known (no display, Wayland) it is empty
// and no application counts as frontmost. macOS: NSWorkspace.
//
// Tests replace the platform side with setBackend(), overriding only what
// they need: every Backend operation has a do-nothing default.
#pragma once

#include <memory>
#include <string>

class MVWorkspace {
 public:
  class Backend {
   public:
    virtual ~Backend() = default;
    virtual bool selectFile(const std::string& fullPath, const std::string& inFileViewerRootedAtPath);
    virtual bool openFile(const std::string& path);
    virtual bool openFile(const std::string& path, const std::string& withApplication);
    virtual std::string frontmostApplicationName();
    virtual std::string iconForFile(const std::string& path);
    // Default: the search of the applications folders described below.
    virtual std::string absolutePathForAppBundleWithIdentifier(const std::string& bundleId);
    // Default: none.
    virtual std::string applicationWithIdentifier(const std::string& identifier);
  };

  // Installs the platform side (or a fake); returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

  // Shows the file selected in a file-manager window on its folder.
  static bool revealFile(const std::string& path);
  static bool selectFile(const std::string& fullPath, const std::string& inFileViewerRootedAtPath);
  // With the default application for the file's type.
  static bool openFile(const std::string& path);
  // With the named application; an empty name means the default application.
  static bool openFile(const std::string& path, const std::string& withApplication);
  // The name of the application the user is working in; "" when unknown.
  static std::string frontmostApplicationName();
  // An icon for the file (a file path or an icon-theme name), "" when none.
  static std::string iconForFile(const std::string& path);
  // The application bundle with that identifier, "" when none. Searches
  // "<dir>/*.app/Contents/Info.plist" ("CFBundleIdentifier") in the user's and
  // then the machine's applications folders, so on Linux only bundles laid
  // out as on macOS are found.
  static std::string pathForAppWithBundleID(const std::string& bundleId);

  // The installed application the desktop knows by this identifier, in a
  // form openFile accepts; "" when there is none. Linux: the desktop entry
  // "<identifier>.desktop" as the desktop's application lookup (GIO) finds
  // it in the applications folders of XDG_DATA_HOME and XDG_DATA_DIRS, given
  // as its file. macOS: the bundle with that identifier.
  static std::string applicationWithIdentifier(const std::string& identifier);

  // The portable bundle search, also the Backend default.
  static std::string searchApplicationFoldersForBundleID(const std::string& bundleId);
};
