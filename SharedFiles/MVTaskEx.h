// MVTaskEx: runs external programs and hands back their exit status or
// their output.
//
// Programs are started from an absolute executable path with an argument
// vector, never through a shell. The synchronous class operations block the
// calling thread until the program has ended; the forms that take a
// time-out start a helper thread that sleeps the whole seconds of the
// time-out (truncated: less than one second fires at once) and then asks the
// main thread to terminate the program. Termination always happens on the
// main thread, so a caller that blocks the main thread (or calls from it)
// gets no time-out until it returns. runTask(path, arguments, timeout) arms
// a time-out that never finds its program: it waits like runTask, however
// long the program takes.
//
// Output capture reads standard output and standard error concurrently, so
// a program that floods one of them cannot stall. The result is the
// output when the program wrote any, otherwise its error text, otherwise
// empty data.
//
// The asynchronous runner (asyncDataFromTask) reads the output on a
// detached thread and calls its delegate there, once per chunk and once
// more with empty data at the end; the runner keeps itself alive until that
// last call. Call terminateAsyncTask to stop it early.
//
// Platforms: the executability test accepts regular executable files only,
// so an application bundle or any other folder is refused.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MVTaskProcess.h"

// Text encodings for the string forms, with the platform's numeric values.
enum MVStringEncoding : unsigned long {
  kMVASCIIStringEncoding = 1,
  kMVUTF8StringEncoding = 4,
  kMVISOLatin1StringEncoding = 5,
  kMVUnicodeStringEncoding = 10,  // UTF-16, byte order from the BOM, big-endian without one
  kMVUTF16BigEndianStringEncoding = 0x90000100,
  kMVUTF16LittleEndianStringEncoding = 0x94000100,
};

// Decodes program output into UTF-8. ASCII decoding maps bytes of 0x80 and
// above as ISO Latin 1 (as the platform does), so it never fails. UTF-8
// input that is not valid UTF-8, odd-length or unpaired UTF-16 and unknown
// encodings give nothing; the result is always valid UTF-8.
std::optional<std::string> MVDecodeString(const std::vector<std::uint8_t>& data, MVStringEncoding encoding);

// The name of the in-process notification that carries one chunk of an
// asynchronous run to asyncTaskReturnData.
inline constexpr std::string_view kMVAsyncTaskDataNotification = "MVAsyncTaskDataNotification";

class MVTaskEx : public std::enable_shared_from_this<MVTaskEx> {
 public:
  using Data = std::vector<std::uint8_t>;
  using Arguments = std::vector<std::string>;
  using Environment = std::map<std::string, std::string>;
  using Task = std::shared_ptr<MVTaskProcess>;
  // Receives (chunk, runner, object) on the runner's thread. The object is the
  // one given to asyncDataFromTask (empty when none was given).
  using Delegate = std::function<void(const Data& data, const std::shared_ptr<MVTaskEx>& runner, const std::any& object)>;

  // A "task" out-parameter, when given, receives the process handle before
  // the program starts, so that the caller (or another thread) can ask
  // whether it runs and terminate it.

  // Exit status 0 is success; false also when the program could not start.
  // Standard output and error go to the null device. Only paths that begin
  // with "/" are checked for executability; others reach the launcher,
  // which refuses them ("Exception running task ...").
  static bool runTask(const std::string& path, const Arguments& arguments = {});
  static bool runTask(const std::string& path, const Arguments& arguments, Task* task);
  static bool runTask(const std::string& path, const Arguments& arguments, double timeout);

  // Starts the program and returns at once (true when it started); its
  // output goes to the null device and it is reaped when it ends.
  static bool runTaskAndReturn(const std::string& path, const Arguments& arguments = {});

  // The exit status (the signal number when a signal ended the program);
  // -1 when the path is not executable or the program could not start.
  static int terminationCodeFromTask(const std::string& path, const Arguments& arguments = {});
  static int terminationCodeFromTask(const std::string& path, const Arguments& arguments, Task* task);
  static int terminationCodeFromTask(const std::string& path, const Arguments& arguments, double timeout);

  // Captured output; nothing when the path is not executable or the program
  // could not start. With logOutput off the program writes to the agent's
  // own standard output; with logError off its errors go to the null device.
  static std::optional<Data> dataFromTask(const std::string& path, const Arguments& arguments, Task* task);
  static std::optional<Data> dataFromTask(const std::string& path, const Arguments& arguments, Task* task,
                                          const std::optional<Environment>& environment, bool logOutput,
                                          bool logError);
  static std::optional<Data> dataFromTask(const std::string& path, const Arguments& arguments, double timeout);
  static std::optional<Data> dataFromTask(const std::string& path, const Arguments& arguments, double timeout,
                                          bool logOutput, bool logError);

  // Captured output as text (ASCII unless told otherwise); empty when there
  // is no output or it does not decode.
  static std::string stringFromTask(const std::string& path, const Arguments& arguments = {});
  static std::string stringFromTask(const std::string& path, const Arguments& arguments, Task* task);
  static std::string stringFromTask(const std::string& path, const Arguments& arguments, double timeout);
  static std::string stringFromTask(const std::string& path, const Arguments& arguments, MVStringEncoding encoding,
                                    double timeout);
  static std::string stringFromTask(const std::string& path, const Arguments& arguments, MVStringEncoding encoding,
                                    double timeout, bool logOutput, bool logError);

  // Whether the path names a regular file that may be executed.
  static bool isExecutable(const std::string& path);

  // An asynchronous runner. It must be owned by a shared_ptr.
  static std::shared_ptr<MVTaskEx> create();
  MVTaskEx(const MVTaskEx&) = delete;
  MVTaskEx& operator=(const MVTaskEx&) = delete;
  // Clears the delegate and terminates a program that still runs.
  ~MVTaskEx();

  // Starts the program with pipes for its output and error and reads the
  // output on a detached thread. The environment, when given, replaces the
  // agent's.
  void asyncDataFromTask(const std::string& path, const Arguments& arguments, Delegate delegate,
                         std::any object = {});
  void asyncDataFromTask(const std::string& path, const Arguments& arguments, Delegate delegate, std::any object,
                         const std::optional<Environment>& environment);
  void terminateTask() { terminateAsyncTask(); }
  // Stops reading, clears delegate and object, terminates the program if it
  // runs. Any thread; a delegate call already under way may still finish.
  void terminateAsyncTask();

  // One chunk (empty: the end) as the runner's thread delivers it.
  void asyncTaskReturnData(const Data& data);

  // The process of the current run (or of the current time-out), if any.
  Task theTask() const;

  // Performed on the main thread by the time-out helper: terminates theTask
  // when it runs, with "Task %@ timed out. Terminating...".
  void timeout();

 private:
  MVTaskEx() = default;

  struct AsyncRun;
  struct TimeoutState;

  // The instance side of every "...timeout" form: arms the helper, runs
  // `body` with a setter for theTask, disarms.
  template <typename Result>
  static Result withTimeout(double timeout, const std::function<Result(const std::function<void(Task)>&)>& body);
  void setupTimeout(long seconds, const std::shared_ptr<TimeoutState>& state);
  void setTheTask(Task task);
  void launchAsyncTask(std::shared_ptr<AsyncRun> run);

  mutable std::mutex mutex_;
  Task theTask_;
  Delegate delegate_;
  std::any object_;
  std::shared_ptr<AsyncRun> run_;
};
