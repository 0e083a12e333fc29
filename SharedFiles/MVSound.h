// MVSound: the short system sounds played when a render ends.
//
// play() starts the named sound and returns at once. `onFinished` runs
// exactly once, on the main thread, after the sound ended, was cut short or
// could not be played at all (no audio device, no such sound); its argument
// says whether the sound played to its end. Callers that count running jobs
// rely on that single call.
//
// Names are the platform's system sound names: "Glass" (a job succeeded) and
// "Sosumi" (a job failed) among others. Linux: libcanberra plays the
// freedesktop sound-theme events "complete" and "dialog-error" for them; an
// unknown name is taken as a sound-theme event id, an absolute path as a
// sound file. A missing audio device is logged once. macOS: NSSound.
#pragma once

#include <functional>
#include <memory>
#include <string>

class MVSound {
 public:
  using Completion = std::function<void(bool finishedPlaying)>;

  class Backend {
   public:
    virtual ~Backend() = default;
    // Must call `onFinished` once, on the main thread, whatever happens.
    virtual void play(const std::string& name, Completion onFinished) = 0;
  };

  // Installs the platform side; returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

  static void play(const std::string& name, Completion onFinished = {});
};
