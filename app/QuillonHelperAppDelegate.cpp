#include "QuillonHelperAppDelegate.h"

#include "AppController.h"
#include "MVLog.h"

QuillonHelperAppDelegate::QuillonHelperAppDelegate() = default;
QuillonHelperAppDelegate::~QuillonHelperAppDelegate() = default;

void QuillonHelperAppDelegate::applicationDidFinishLaunching() {
  controller_ = std::make_unique<AppController>();
  controller_->init();
  controller_->setup();
}

void QuillonHelperAppDelegate::applicationWillTerminate() {
  if (controller_) controller_->applicationWillTerminate();
  MVLog::sharedController().willTerminate();
}
