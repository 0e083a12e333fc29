// The Linux desktop services against real peers: dbusmock services on a
// private session bus, GIO applications in the test home, libcanberra, X11.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "DesktopServices.h"
#include "MVDistributedNotificationCenter.h"
#include "MVGrowl.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVResources.h"
#include "MVRunLoop.h"
#include "MVSound.h"
#include "MVWorkspace.h"
#include "PowerTestSupport.h"

using namespace quillon_test;

namespace {

// A shell script that appends its first argument to `output`, one line per run.
std::string makeRecorder(const std::string& output) {
  std::string script = makeTempDir("recorder") + "/record.sh";
  writeFile(script, "#!/bin/sh\necho \"$1\" >> '" + output + "'\n");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  return script;
}

bool fileHasLine(const std::string& path, const std::string& line) {
  return ("\n" + readFile(path)).find("\n" + line + "\n") != std::string::npos;
}

// One private session bus for the whole process, and a recorder application,
// the default for text files and folders, so that opening can be observed.
struct Desktop {
  static Desktop& shared() {
    static Desktop desktop;
    return desktop;
  }
  PrivateSessionBus bus;
  std::string opened = testHome() + "/opened.txt";  // the recorder's output file
  Desktop() {
    writeFile(testHome() + "/.local/share/applications/quillon-recorder.desktop",
              "[Desktop Entry]\nType=Application\nName=Quillon Test Recorder\nExec=" + makeRecorder(opened) +
                  " %f\nMimeType=text/plain;inode/directory;\n");
    writeFile(testHome() + "/.config/mimeapps.list",
              "[Default Applications]\ntext/plain=quillon-recorder.desktop\ninode/directory=quillon-recorder.desktop\n");
    setenv("QUILLON_RESOURCES", (std::string(QUILLON_SOURCE_DIR) + "/resources").c_str(), 1);
    MVLog::createNewLog("test_DesktopServices", true);
    quillon::installDesktopServices();
  }
};

class DesktopServices : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Desktop::shared().bus.isRunning()) << Desktop::shared().bus.error(); }
  PrivateSessionBus& bus = Desktop::shared().bus;
};

struct Received {
  std::string name;
  MVPlistValue object, userInfo;
  bool onMainThread;
};

TEST_F(DesktopServices, DistributedNotificationsTravelOverTheSessionBus) {
  std::vector<Received> got;
  int others = 0;
  auto record = [&](const std::string& name, const MVPlistValue& object, const MVPlistValue& userInfo) {
    got.push_back({name, object, userInfo, MVRunLoop::main().isMainThread()});
  };
  auto& center = MVDistributedNotificationCenter::defaultCenter();
  MVObserverToken token = center.addObserver("MVQuillonConfigUpdate", record);
  MVObserverToken other = center.addObserver(
      "QmasterAdUpdateNotification", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) { ++others; });

  // Posted from a worker thread (from another process: the agent tests), it
  // arrives on the main thread.
  MVPlistValue info;
  info.set("advertisement", "<ad/>");
  std::thread([&] { center.postNotification("MVQuillonConfigUpdate", "sender", info); }).join();
  ASSERT_TRUE(waitUntil([&] { return got.size() == 1; }, 10));
  EXPECT_EQ(got[0].object, MVPlistValue("sender"));
  EXPECT_EQ(got[0].userInfo["advertisement"], MVPlistValue("<ad/>"));
  EXPECT_TRUE(got[0].onMainThread);

  // Wrong shape: ignored. A dropped token: nothing more.
  shell("dbus-send --session --type=signal /com/morvane/DistributedNotificationCenter "
        "com.morvane.DistributedNotificationCenter.Notification string:MVQuillonConfigUpdate");
  token.invalidate();
  center.postNotification("MVQuillonConfigUpdate");
  center.postNotification("QmasterAdUpdateNotification");
  ASSERT_TRUE(waitUntil([&] { return others == 1; }, 10));
  MVRunLoop::main().runFor(0.3);
  EXPECT_EQ(got.size(), 1u);
}

TEST_F(DesktopServices, DesktopNotificationsGoToTheNotificationServer) {
  Mock server = bus.startMock("org.freedesktop.Notifications", "notification_daemon");
  ASSERT_TRUE(server.started());
  auto notified = [&](const std::string& text) { return linesWith(server.log(), text); };

  std::string icon = MVResources::pathForImageResource("Avid.icns");
  ASSERT_FALSE(icon.empty());
  MVGrowl::postGrowlNotification("Render Complete", "File: take 1.mov", icon, "Avid Media Composer Render Complete");
  MVGrowl::postGrowlNotification("Render Failed", "Batch: nightly", "/no/such/icon.png", "Render Failed",
                                 MVPlistValue());
  MVGrowl::postGrowlNotification("Render Complete", "Project: theme", "folder", "Final Cut Pro Render Complete");
  ASSERT_TRUE(waitUntil([&] { return notified("Notify ") == 3; }, 10)) << server.log();

  // Only a notification with a click context offers the click.
  EXPECT_EQ(notified("Notify \"Quillon\" 0 \"file://" + icon + "\" \"Render Complete\" \"File: take 1.mov\" "
                     "[\"default\", \"Show\"] {\"suppress-sound\": True} -1"), 1u) << server.log();
  EXPECT_EQ(notified("Notify \"Quillon\" 0 \"\" \"Render Failed\" \"Batch: nightly\" [] "), 1u);
  EXPECT_EQ(notified("Notify \"Quillon\" 0 \"folder\" \"Render Complete\""), 1u);

  // This server reads the body as markup: a file name shows as typed.
  MVGrowl::postGrowlNotification("Render Complete", "after: Tom & Jerry <cut>.mov", "", "");
  ASSERT_TRUE(waitUntil([&] { return notified("\"after: Tom &amp; Jerry &lt;cut&gt;.mov\"") == 1; }, 10));

  // No server: one log line for any number of notifications, and no crash.
  server.stop();
  LogSince log;
  MVGrowl::postGrowlNotification("Render Complete", "lost 1");
  MVGrowl::postGrowlNotification("Render Complete", "lost 2");
  const std::string complaint = "Desktop notification not shown: no notification server";
  ASSERT_TRUE(waitUntil([&] { return log.count(complaint) > 0; }, 10));
  MVRunLoop::main().runFor(0.5);
  EXPECT_EQ(log.count(complaint), 1u);
}

// Whether this machine has an audio device or not, each play reports once.
TEST_F(DesktopServices, SoundFinishesExactlyOnceOnTheMainThread) {
  std::atomic<int> finished{0};
  std::atomic<bool> allOnMain{true};
  auto done = [&](bool) {
    allOnMain = allOnMain && MVRunLoop::main().isMainThread();
    ++finished;
  };
  MVSound::play("Glass", done);
  std::thread([&] { MVSound::play("Sosumi", done); }).join();
  MVSound::play("no-such-sound-event", done);
  ASSERT_TRUE(waitUntil([&] { return finished == 3; }, 30));
  MVRunLoop::main().runFor(0.5);
  EXPECT_EQ(finished.load(), 3);
  EXPECT_TRUE(allOnMain.load());
}

TEST_F(DesktopServices, RevealAsksTheFileManagerElseOpensTheFolder) {
  Mock fileManager = bus.startBareMock("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                                       "org.freedesktop.FileManager1");
  ASSERT_TRUE(fileManager.started() &&
              fileManager.mock("AddMethod", "org.freedesktop.FileManager1 ShowItems ass \"''\" \"''\""));
  std::string folder = makeTempDir("renders");
  std::string file = folder + "/final cut.mov";
  writeFile(file, "x");

  EXPECT_TRUE(MVWorkspace::revealFile(file));
  ASSERT_TRUE(waitUntil([&] { return linesWith(fileManager.log(), "ShowItems") == 1; }, 10));
  EXPECT_EQ(linesWith(fileManager.log(), "ShowItems [\"file://" + folder + "/final%20cut.mov\"] \"\""), 1u)
      << fileManager.log();
  EXPECT_FALSE(MVWorkspace::revealFile(folder + "/missing.mov"));

  // Without a file manager the folder opens in its default application.
  fileManager.stop();
  EXPECT_TRUE(MVWorkspace::revealFile(file));
  EXPECT_TRUE(waitUntil([&] { return fileHasLine(Desktop::shared().opened, folder); }, 10));
}

TEST_F(DesktopServices, OpenFileWithDefaultNamedOrGivenApplication) {
  const std::string& opened = Desktop::shared().opened;
  std::string folder = makeTempDir("open");
  // The type's default, an installed application by name, by desktop id or
  // file, and a name not installed here (the default instead).
  for (const std::string& application :
       {std::string(), std::string("Quillon Test Recorder"), std::string("quillon-recorder.desktop"),
        testHome() + "/.local/share/applications/quillon-recorder.desktop", std::string("QuickTime Player")}) {
    std::string file = folder + "/" + std::to_string(std::hash<std::string>{}(application)) + ".txt";
    writeFile(file, "text");
    EXPECT_TRUE(MVWorkspace::openFile(file, application)) << application;
    EXPECT_TRUE(waitUntil([&] { return fileHasLine(opened, file); }, 10)) << application;
  }

  // An executable gets the path as its one argument.
  std::string own = testHome() + "/own-app.txt";
  std::string app = makeRecorder(own);
  std::string movie = folder + "/clip.mxf";
  writeFile(movie, "data");
  EXPECT_TRUE(MVWorkspace::openFile(movie, app));
  EXPECT_TRUE(waitUntil([&] { return fileHasLine(own, movie); }, 10));

  EXPECT_FALSE(MVWorkspace::openFile(folder + "/missing.txt", app));
  EXPECT_FALSE(MVWorkspace::openFile(movie, folder + "/not-an-app"));
  EXPECT_FALSE(MVWorkspace::openFile(movie, "no-such-thing.desktop"));
  EXPECT_EQ(MVWorkspace::iconForFile(folder), "inode-directory");
}

TEST_F(DesktopServices, FrontmostApplicationComesFromX11OrIsUnknown) {
  EnvOverride display("DISPLAY", ":987654");  // no such server
  EXPECT_EQ(MVWorkspace::frontmostApplicationName(), "");

  // Under Xvfb, the process named by the active window's _NET_WM_PID.
  power_test::VirtualDisplay x;
  ASSERT_TRUE(x.running());
  setenv("DISPLAY", x.display().c_str(), 1);
  shell("xprop -root -f _NET_WM_PID 32c -set _NET_WM_PID " + std::to_string(getpid()));
  shell("xprop -root -f _NET_ACTIVE_WINDOW 32x -set _NET_ACTIVE_WINDOW $(xwininfo -root | awk '/Window id/{print $4}')");
  std::string comm = readFile("/proc/self/comm");
  EXPECT_EQ(MVWorkspace::frontmostApplicationName(), comm.substr(0, comm.find('\n')));

  EnvOverride wayland("XDG_SESSION_TYPE", "wayland");
  EXPECT_EQ(MVWorkspace::frontmostApplicationName(), "");
}

TEST_F(DesktopServices, BundlesAreFoundByIdentifierInTheApplicationsFolders) {
  std::string apps = MVLocalPaths::applicationDirectory(true);
  auto bundle = [&](const std::string& name, const std::string& identifier) {
    MVPlistValue info;
    info.set("CFBundleIdentifier", identifier);
    std::filesystem::create_directories(apps + "/" + name + "/Contents");
    ASSERT_TRUE(MVPropertyList::write(apps + "/" + name + "/Contents/Info.plist", info));
  };
  bundle("Compressor.app", "com.apple.Compressor");
  bundle("Batch Monitor.app", "com.apple.BatchMonitor");
  bundle("Impostor.txt", "com.apple.Qmaster");  // not a bundle
  EXPECT_EQ(MVWorkspace::pathForAppWithBundleID("com.apple.BatchMonitor"), apps + "/Batch Monitor.app");
  EXPECT_EQ(MVWorkspace::pathForAppWithBundleID("com.apple.compressor"), "");
  EXPECT_EQ(MVWorkspace::pathForAppWithBundleID("com.apple.Qmaster"), "");
}

TEST_F(DesktopServices, WithoutASessionBusEverythingStaysQuiet) {
  std::string saved = getenv("DBUS_SESSION_BUS_ADDRESS");
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quillon-bus", 1);
  LogSince log;

  int calls = 0;
  MVObserverToken token = MVDistributedNotificationCenter::defaultCenter().addObserver(
      "MVQuillonConfigUpdate", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) { ++calls; });
  MVDistributedNotificationCenter::defaultCenter().postNotification("MVQuillonConfigUpdate");
  MVGrowl::postGrowlNotification("Render Complete", "nowhere");
  MVRunLoop::main().runFor(0.5);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(log.count("No session bus at unix:path=/nonexistent/quillon-bus"), 1u) << log.text();

  // The bus comes back: observers added before it work again.
  setenv("DBUS_SESSION_BUS_ADDRESS", saved.c_str(), 1);
  MVObserverToken again = MVDistributedNotificationCenter::defaultCenter().addObserver(
      "other", [](const std::string&, const MVPlistValue&, const MVPlistValue&) {});
  MVRunLoop::main().runFor(0.2);
  MVDistributedNotificationCenter::defaultCenter().postNotification("MVQuillonConfigUpdate");
  EXPECT_TRUE(waitUntil([&] { return calls == 1; }, 10));
}

}  // namespace
