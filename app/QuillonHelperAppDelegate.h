// The application delegate: creates the one controller when the agent has
// finished launching and forwards the termination to it.
#pragma once

#include <memory>

class AppController;

class QuillonHelperAppDelegate {
 public:
  QuillonHelperAppDelegate();
  ~QuillonHelperAppDelegate();

  void applicationDidFinishLaunching();
  void applicationWillTerminate();

  // Not used by the agent; kept for the platform's delegate shape.
  void* window = nullptr;

 private:
  std::unique_ptr<AppController> controller_;
};
