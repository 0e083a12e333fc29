// MVLogInternal: what the log's own source files share (the writer state,
// the open file, small text helpers). Not for callers of MVLog.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "MVLog.h"

namespace mvlog_detail {

constexpr std::uint64_t kTruncationBytes = 5'000'000;
constexpr int kGenerations = 5;
// Beyond this many pending lines, shutdown drops them rather than wait.
constexpr std::size_t kMaxLinesWaitedForAtExit = 10;
// Background threads wait for short lines on a nearly idle writer.
constexpr std::size_t kShortLine = 99;

// Length as the platform's strings count it: UTF-16 code units.
std::size_t characterLength(const std::string& s);
// Writes to standard output in one piece and flushes.
void printLine(const std::string& text);
// The current date as the log stamps it.
std::string nowDescription();
bool runningAsRoot();

// Platform answers for the header (MVLog_linux.cpp on Linux).
std::string executablePath();
// The operating system's name and version, e.g. "Debian GNU/Linux 12
// (bookworm) (kernel 6.1.0-18-amd64)".
std::string operatingSystemDescription();

// The open current file. Writes append; the descriptor closes with the object.
class LogFile {
 public:
  // Opens an existing file for writing; nullptr when it cannot.
  static std::shared_ptr<LogFile> open(const std::string& path);
  explicit LogFile(int fd) : fd_(fd) {}
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // 0 on success, else the errno of the failure.
  int write(const std::string& bytes);

 private:
  int fd_;
};

}  // namespace mvlog_detail

struct MVLog::State {
  using LogFile = mvlog_detail::LogFile;

  std::atomic<std::uint64_t> bytesInQueue{0};
  std::atomic<std::uint64_t> bytesWritten{0};
  std::atomic<bool> loggingDisabled{false};
  std::atomic<bool> noPrinting{false};

  mutable std::mutex fileMutex;
  std::shared_ptr<LogFile> fileHandle;

  mutable std::mutex nameMutex;
  std::optional<std::string> appName;

  // Rotation and opening are serialised; the header lines are not, so that
  // a creation never waits for the writer while holding this.
  std::mutex createMutex;

  // The writer: one thread, one queue, lines written in enqueue order.
  mutable std::mutex queueMutex;
  std::condition_variable workAvailable;
  std::condition_variable queueIdle;
  std::deque<std::string> queue;
  bool operationRunning = false;
  bool paused = false;
  bool terminated = true;   // no writer: lines are dropped
  unsigned generation = 0;  // a writer that outlived its shutdown stops at this
  std::thread writer;
  std::atomic<std::thread::id> writerId{};
  std::mutex lifecycleMutex;  // starting and stopping the writer

  std::shared_ptr<LogFile> file() const;
  void setFile(std::shared_ptr<LogFile> handle);
  bool onWriterThread() const { return std::this_thread::get_id() == writerId.load(); }
  // Lowers bytesInQueue without wrapping below zero.
  void subtractQueued(std::uint64_t n);
  // Prints one of the log's complaints unless noPrinting.
  void complain(const std::string& text);

  void enqueue(std::string line);
  // Returns once the queue is empty and no line is being written.
  void waitUntilIdle();
  void writerLoop(MVLog& log);
  // Starts the writer if none runs (at creation, and after a shutdown).
  void startWriter(MVLog& log);
  // Lets 10 or fewer pending lines be written, drops more, then ends the
  // writer thread.
  void stopWriter();
};
