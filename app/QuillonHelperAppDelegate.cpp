#include "QuillonHelperAppDelegate.h"

#include "AppController.h"
#include "MVLog.h"

QuillonHelperAppDelegate::QuillonHelperAppDelegate() = default;
QuillonHelperAppDelegate::~QuillonHelperAppDelegate() {
  // The controller lives for the whole process: detached workers (the
  // post-render actions, the Compressor re-check) may still be using it while
  // the process exits, so it is deliberately never destroyed.
  (void)controller_.release();
}

void QuillonHelperAppDelegate::applicationDidFinishLaunching() {
  controller_ = std::make_unique<AppController>();
  controller_->init();
  controller_->setup();
}

void QuillonHelperAppDelegate::applicationWillTerminate() {
  if (controller_) controller_->applicationWillTerminate();
  MVLog::sharedController().willTerminate();
}
