#include "MVVolumes.h"

#include <mutex>
#include <utility>

namespace {

struct VolumesState {
  std::mutex mutex;
  std::unique_ptr<MVVolumesBackend> backend;
  bool watching = false;
  std::size_t observerCount = 0;
  // Thread-safe by itself; posting never takes `mutex`, so an observer may
  // add or drop observers from inside its call.
  MVObserverList observers;
};

VolumesState& state() {
  static VolumesState volumes;
  return volumes;
}

void postChange(MVVolumesBackend::Change change, const std::string& mountPoint) {
  MVPlistValue userInfo;
  userInfo.set(MVVolumes::kDevicePathKey, mountPoint);
  const char* name = change == MVVolumesBackend::Change::Mounted ? MVVolumes::kDidMountNotification
                                                                  : MVVolumes::kDidUnmountNotification;
  state().observers.post(name, MVPlistValue(), userInfo);
}

// Both called with the state's mutex held.
void startWatchingIfObserved(VolumesState& s) {
  if (s.watching || !s.backend || s.observerCount == 0) return;
  s.backend->startWatching(&postChange);
  s.watching = true;
}

void stopWatching(VolumesState& s) {
  if (!s.watching) return;
  if (s.backend) s.backend->stopWatching();
  s.watching = false;
}

}  // namespace

std::unique_ptr<MVVolumesBackend> MVVolumes::setBackend(std::unique_ptr<MVVolumesBackend> backend) {
  VolumesState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  stopWatching(s);
  std::swap(s.backend, backend);
  startWatchingIfObserved(s);
  return backend;
}

std::vector<std::string> MVVolumes::mountedLocalVolumePaths() {
  VolumesState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.backend) return {"/"};
  return s.backend->mountedLocalVolumePaths();
}

MVObserverToken MVVolumes::addDidMountObserver(Observer observer) {
  return addObserver(kDidMountNotification, std::move(observer));
}

MVObserverToken MVVolumes::addDidUnmountObserver(Observer observer) {
  return addObserver(kDidUnmountNotification, std::move(observer));
}

MVObserverToken MVVolumes::addObserver(const char* name, Observer observer) {
  VolumesState& s = state();
  auto registration = std::make_shared<MVObserverToken>(
      s.observers.add(name, [observer = std::move(observer)](const std::string&, const MVPlistValue&,
                                                             const MVPlistValue& userInfo) { observer(userInfo); }));
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.observerCount;
    startWatchingIfObserved(s);
  }
  return MVObserverToken([registration]() {
    registration->invalidate();
    VolumesState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (--s.observerCount == 0) stopWatching(s);
  });
}
