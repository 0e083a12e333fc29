#include "MVLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string_view>
#include <system_error>

#include "MVCrashLog.h"
#include "MVLogInternal.h"
#include "MVRunLoop.h"

using namespace mvlog_detail;

namespace {

// Static initialisation runs on the process's initial thread. Without an
// installed main loop, that thread counts as the main thread.
const std::thread::id gInitialThread = std::this_thread::get_id();

bool callerIsMainThread() {
  if (MVRunLoop::hasMain()) return MVRunLoop::main().isMainThread();
  return std::this_thread::get_id() == gInitialThread;
}

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// The white space and line ends that trimming removes, beyond ASCII's.
bool isUnicodeSpace(char32_t c) {
  return c == 0x85 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 ||
         c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

// Byte length of the white space or line end that starts at `begin`; 0 when
// there is none.
std::size_t spaceAt(const std::string& s, std::size_t begin) {
  unsigned char c = static_cast<unsigned char>(s[begin]);
  if (c == ' ' || (c >= '\t' && c <= '\r')) return 1;
  std::size_t len = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : 0;
  if (len == 0 || begin + len > s.size()) return 0;
  char32_t code = len == 2 ? (c & 0x1F) : (c & 0x0F);
  for (std::size_t i = 1; i < len; ++i) {
    unsigned char k = static_cast<unsigned char>(s[begin + i]);
    if (!isContinuation(k)) return 0;
    code = (code << 6) | (k & 0x3F);
  }
  return isUnicodeSpace(code) ? len : 0;
}

std::string trimmed(const std::string& s) {
  std::size_t begin = 0, end = s.size();
  while (begin < end) {
    std::size_t n = spaceAt(s, begin);
    if (!n) break;
    begin += n;
  }
  while (end > begin) {
    std::size_t start = end - 1;
    while (start > begin && isContinuation(static_cast<unsigned char>(s[start]))) --start;
    std::size_t n = spaceAt(s, start);
    if (n != end - start) break;
    end = start;
  }
  return s.substr(begin, end - begin);
}

std::string replaceAll(std::string text, std::string_view find, std::string_view replacement) {
  std::size_t at = 0;
  while ((at = text.find(find, at)) != std::string::npos) {
    text.replace(at, find.size(), replacement);
    at += replacement.size();
  }
  return text;
}

std::mutex gStdoutMutex;

MVLog* gInstance = nullptr;

void shutDownAtExit() {
  if (gInstance) gInstance->willTerminate();
}

}  // namespace

namespace mvlog_detail {

// Length as the platform's strings count it: UTF-16 code units.
std::size_t characterLength(const std::string& s) {
  std::size_t n = 0;
  for (unsigned char c : s) {
    if (isContinuation(c)) continue;
    n += c >= 0xF0 ? 2 : 1;
  }
  return n;
}

void printLine(const std::string& text) {
  std::lock_guard<std::mutex> lock(gStdoutMutex);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

std::string nowDescription() { return MVDateDescription(std::chrono::system_clock::now()); }

std::shared_ptr<LogFile> LogFile::open(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  return fd < 0 ? nullptr : std::make_shared<LogFile>(fd);
}

LogFile::~LogFile() { ::close(fd_); }

int LogFile::write(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? errno : EIO;
    done += static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace mvlog_detail

// ---- The writer state ----

std::shared_ptr<LogFile> MVLog::State::file() const {
  std::lock_guard<std::mutex> lock(fileMutex);
  return fileHandle;
}

void MVLog::State::setFile(std::shared_ptr<LogFile> handle) {
  std::lock_guard<std::mutex> lock(fileMutex);
  fileHandle = std::move(handle);
}

void MVLog::State::subtractQueued(std::uint64_t n) {
  std::uint64_t current = bytesInQueue.load();
  while (!bytesInQueue.compare_exchange_weak(current, current >= n ? current - n : 0)) {
  }
}

void MVLog::State::complain(const std::string& text) {
  if (!noPrinting.load()) printLine(text);
}

void MVLog::State::enqueue(std::string line) {
  std::lock_guard<std::mutex> lock(queueMutex);
  if (terminated) return;
  bytesInQueue += characterLength(line);
  queue.push_back(std::move(line));
  workAvailable.notify_one();
}

void MVLog::State::waitUntilIdle() {
  // On the writer itself, everything enqueued before this call is written
  // already; waiting for the rest would wait for ourselves.
  if (onWriterThread()) return;
  std::unique_lock<std::mutex> lock(queueMutex);
  queueIdle.wait(lock, [&] { return terminated || (queue.empty() && !operationRunning); });
}

void MVLog::State::writerLoop(MVLog& log) {
  writerId.store(std::this_thread::get_id());
  std::unique_lock<std::mutex> lock(queueMutex);
  const unsigned mine = generation;
  for (;;) {
    workAvailable.wait(lock, [&] { return terminated || mine != generation || (!paused && !queue.empty()); });
    if (terminated || mine != generation) break;
    std::string line = std::move(queue.front());
    queue.pop_front();
    operationRunning = true;
    lock.unlock();
    log.appendLogOnThread(line);
    lock.lock();
    operationRunning = false;
    if (queue.empty()) queueIdle.notify_all();
  }
  queueIdle.notify_all();
}

void MVLog::State::startWriter(MVLog& log) {
  if (onWriterThread()) return;  // it runs: we are it
  std::lock_guard<std::mutex> life(lifecycleMutex);
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    if (!terminated) return;
  }
  if (writer.joinable()) writer.join();
  std::lock_guard<std::mutex> lock(queueMutex);
  terminated = false;
  ++generation;
  writer = std::thread([this, &log] {
    MVCrashLog::prepareThread();
    writerLoop(log);
  });
}

void MVLog::State::stopWriter() {
  const bool fromWriter = onWriterThread();
  std::unique_lock<std::mutex> life(lifecycleMutex, std::defer_lock);
  if (!fromWriter) life.lock();
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    if (terminated) return;
    std::size_t pending = queue.size() + (operationRunning ? 1 : 0);
    if (pending > kMaxLinesWaitedForAtExit) {
      for (const std::string& line : queue) subtractQueued(characterLength(line));
      queue.clear();
    }
    paused = false;
    workAvailable.notify_all();
  }
  waitUntilIdle();
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    terminated = true;
    workAvailable.notify_all();
    queueIdle.notify_all();
  }
  if (!writer.joinable()) return;
  if (fromWriter) writer.detach();
  else writer.join();
  writerId.store(std::thread::id());
}

MVLog::MVLog() : state_(std::make_unique<State>()) {}

MVLog::~MVLog() { willTerminate(); }

MVLog& MVLog::sharedController() {
  // The instance is never destroyed, so a line logged by another static
  // object's destructor at exit meets a stopped log rather than freed
  // memory; the exit handler writes what is pending and closes the file.
  static MVLog* const instance = [] {
    alignas(MVLog) static unsigned char storage[sizeof(MVLog)];
    MVLog* log = ::new (storage) MVLog();
    gInstance = log;
    log->state_->startWriter(*log);
    std::atexit(shutDownAtExit);
    installUncaughtExceptionHandler();
    return log;
  }();
  return *instance;
}

// ---- Entry points ----

void MVLog::appendLogv(std::string_view format, std::span<const MVFormatArg> args) {
  if (!format.data()) return;
  MVLog& log = sharedController();
  if (log.state_->loggingDisabled.load()) return;
  std::string message = MVFormat(escapeTextForLogging(std::string(format)), args);
  log.appendTextToLog(message);
  if (callerIsMainThread()) return;
  std::size_t length = characterLength(message);
  if (length >= 1 && length <= kShortLine && log.state_->bytesInQueue.load() <= kShortLine) finishWriting();
}

namespace {

// The text the printing entry point shows on standard output.
std::string printable(const std::string& message) {
  std::string text = replaceAll(message, "%@", "");
  text = replaceAll(text, "%", "%%");
  std::erase(text, '\0');
  return text;
}

}  // namespace

void MVLog::appendLogAndPrintv(std::string_view format, std::span<const MVFormatArg> args) {
  if (!format.data()) return;
  MVLog& log = sharedController();
  if (log.state_->loggingDisabled.load()) return;
  std::string message = trimmed(MVFormat(escapeTextForLogging(std::string(format)), args));
  appendLogv(message, {});
  if (!log.state_->noPrinting.load()) printLine(printable(message) + "\n");
}

void MVLog::appendLogAndDebugPrintv(std::string_view format, std::span<const MVFormatArg> args) {
  if (!format.data()) return;
  MVLog& log = sharedController();
  if (log.state_->loggingDisabled.load()) return;
  appendLogv(trimmed(MVFormat(escapeTextForLogging(std::string(format)), args)), {});
}

void MVLog::fastAppendLogv(std::string_view format, std::span<const MVFormatArg> args) {
  if (!format.data()) return;
  MVLog& log = sharedController();
  if (log.state_->loggingDisabled.load()) return;
  log.appendTextToLog(MVFormat(escapeTextForLogging(std::string(format)), args));
}

void MVLog::finishWriting() { sharedController().state_->waitUntilIdle(); }

std::string MVLog::escapeTextForLogging(const std::string& text) {
  if (text.find('%') == std::string::npos) return text;
  // The last rule undoes the doubling of a percent sign that was already
  // doubled ("100%% done" stays as it was).
  static constexpr std::pair<std::string_view, std::string_view> kRules[] = {
      {"% ", "%% "}, {"%.", "%%."}, {"%!", "%%!"}, {"%,", "%%,"}, {"%-", "%%-"},
      {"%;", "%%;"}, {"%:", "%%:"}, {"%+", "%%+"}, {"%%%", "%%"},
  };
  std::string escaped = text;
  for (const auto& [find, replacement] : kRules) escaped = replaceAll(std::move(escaped), find, replacement);
  return escaped;
}

void MVLog::appendTextToLog(const std::string& text) {
  std::string line = trimmed(text);
  if (line.empty()) return;
  state_->enqueue(std::move(line));
}

// ---- The writer ----

void MVLog::appendLogOnThread(const std::string& text) {
  State& s = *state_;
  if (s.loggingDisabled.load()) return;
  try {
    auto file = s.file();
    if (!file) {
      file = LogFile::open(currentLogPath());
      if (file) {
        s.setFile(file);
      } else {
        if (!s.loggingDisabled.load()) {
          s.complain(MVFormatString("Unable to log the following information: %s\n", text));
          s.complain("Unable to open log for output\n");
        }
      }
    }
    if (file) {
      std::string line = nowDescription() + " - " + text + "\n";
      if (int error = file->write(line)) throw std::system_error(error, std::generic_category());
      // The limit is five million bytes, whatever the old message says.
      if ((s.bytesWritten += line.size()) >= kTruncationBytes) {
        finishWriting();
        createNewLog(appName());
        appendLog("Log truncated at 500KB");
      }
    }
    s.subtractQueued(characterLength(text));
  } catch (const std::exception& exception) {
    if (!s.loggingDisabled.load())
      s.complain(MVFormatString("Exception writing to log: %s\n", exception.what()));
  }
}

// ---- Lifecycle and state ----

void MVLog::willTerminate() {
  state_->stopWriter();
  {
    std::lock_guard<std::mutex> lock(state_->nameMutex);
    state_->appName.reset();
  }
  state_->setFile(nullptr);
}

std::string MVLog::appName() const {
  {
    std::lock_guard<std::mutex> lock(state_->nameMutex);
    if (state_->appName) return *state_->appName;
  }
  return std::filesystem::path(executablePath()).stem().string();
}

void MVLog::setAppName(const std::string& name) {
  std::lock_guard<std::mutex> lock(state_->nameMutex);
  state_->appName = name;
}

std::uint64_t MVLog::bytesInQueue() const { return state_->bytesInQueue.load(); }
std::uint64_t MVLog::bytesWritten() const { return state_->bytesWritten.load(); }
bool MVLog::loggingDisabled() const { return state_->loggingDisabled.load(); }
bool MVLog::noPrinting() const { return state_->noPrinting.load(); }

std::size_t MVLog::operationCount() const {
  std::lock_guard<std::mutex> lock(state_->queueMutex);
  return state_->queue.size() + (state_->operationRunning ? 1 : 0);
}

void MVLog::setWriterPausedForTesting(bool paused) {
  State& s = *sharedController().state_;
  std::lock_guard<std::mutex> lock(s.queueMutex);
  s.paused = paused;
  s.workAvailable.notify_all();
}

void MVLog::resetForTesting() {
  MVLog& log = sharedController();
  State& s = *log.state_;
  setWriterPausedForTesting(false);
  finishWriting();
  log.willTerminate();
  s.loggingDisabled.store(false);
  s.noPrinting.store(false);
  s.bytesInQueue.store(0);
  s.bytesWritten.store(0);
  s.startWriter(log);
}
