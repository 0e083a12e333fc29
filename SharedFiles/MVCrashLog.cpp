#include "MVCrashLog.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "MVLocalPaths.h"
#include "MVProcessInfo.h"

namespace {

// Prepared at install time; the handler only reads them.
char gFolder[1024];
char gName[256];
char gHost[256];
char gExecutable[1024];

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};

std::atomic<bool> gInstalled{false};
// The thread writing a report, 0 when none: a second crash must not cut the
// first report short. Lock-free, so the handler may use it.
std::atomic<long> gReporter{0};
static_assert(std::atomic<long>::is_always_lock_free);

// Room for the handler when the thread's own stack has overflowed: its
// buffers, the unwinder, and a guard page below so that even a handler that
// runs out faults instead of writing over other memory.
constexpr std::size_t kAltStackSize = 64 * 1024;

struct ThreadAltStack {
  void* base = nullptr;
  std::size_t size = 0;
  ~ThreadAltStack() {
    if (!base) return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    munmap(base, size);
  }
};
thread_local ThreadAltStack tAltStack;

const char* signalName(int signo) {
  switch (signo) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGABRT: return "SIGABRT";
    case SIGSYS: return "SIGSYS";
    case SIGTRAP: return "SIGTRAP";
    default: return "?";
  }
}

void append(char* buf, std::size_t size, const char* text) {
  std::size_t len = std::strlen(buf);
  std::size_t i = 0;
  while (text[i] && len + 1 < size) buf[len++] = text[i++];
  buf[len] = '\0';
}

void appendNumber(char* buf, std::size_t size, long long value, int width) {
  char digits[32];
  int n = 0;
  bool negative = value < 0;
  unsigned long long v = negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v && n < 30);
  while (n < width && n < 30) digits[n++] = '0';
  char out[34];
  int k = 0;
  if (negative) out[k++] = '-';
  while (n) out[k++] = digits[--n];
  out[k] = '\0';
  append(buf, size, out);
}

// Civil date from days since 1970 (no locale, no locks: safe in a handler).
void civilFromDays(long long z, int& y, unsigned& m, unsigned& d) {
  z += 719468;
  long long era = (z >= 0 ? z : z - 146096) / 146097;
  unsigned doe = static_cast<unsigned>(z - era * 146097);
  unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  long long yy = static_cast<long long>(yoe) + era * 400;
  unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<int>(yy + (m <= 2));
}

void appendTimestamp(char* buf, std::size_t size, time_t now, bool forFileName) {
  long long days = now / 86400, secs = now % 86400;
  if (secs < 0) {
    secs += 86400;
    --days;
  }
  int y;
  unsigned m, d;
  civilFromDays(days, y, m, d);
  appendNumber(buf, size, y, 4);
  append(buf, size, "-");
  appendNumber(buf, size, m, 2);
  append(buf, size, "-");
  appendNumber(buf, size, d, 2);
  append(buf, size, forFileName ? "-" : " ");
  appendNumber(buf, size, secs / 3600, 2);
  if (!forFileName) append(buf, size, ":");
  appendNumber(buf, size, (secs / 60) % 60, 2);
  if (!forFileName) append(buf, size, ":");
  appendNumber(buf, size, secs % 60, 2);
  if (!forFileName) append(buf, size, " +0000");
}

void writeAll(int fd, const char* text) {
  std::size_t len = std::strlen(text);
  while (len > 0) {
    ssize_t n = write(fd, text, len);
    if (n <= 0) return;
    text += n;
    len -= static_cast<std::size_t>(n);
  }
}

// Opens a report file of its own: a crash in the same second as another
// gets "_2", "_3"... after the host name instead of overwriting it.
int openNewReport(time_t now) {
  for (int attempt = 1; attempt <= 50; ++attempt) {
    char path[2048] = "";
    append(path, sizeof path, gFolder);
    append(path, sizeof path, "/");
    append(path, sizeof path, gName);
    append(path, sizeof path, "_");
    appendTimestamp(path, sizeof path, now, true);
    append(path, sizeof path, "_");
    append(path, sizeof path, gHost);
    if (attempt > 1) {
      append(path, sizeof path, "_");
      appendNumber(path, sizeof path, attempt, 1);
    }
    append(path, sizeof path, ".crash");
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

void writeReport(int signo) {
  time_t now = time(nullptr);
  int fd = openNewReport(now);
  if (fd < 0) return;
  char header[4096] = "Process: ";
  append(header, sizeof header, gName);
  append(header, sizeof header, " [");
  appendNumber(header, sizeof header, getpid(), 1);
  append(header, sizeof header, "]\nPath: ");
  append(header, sizeof header, gExecutable);
  append(header, sizeof header, "\nDate/Time: ");
  appendTimestamp(header, sizeof header, now, false);
  append(header, sizeof header, "\nException Type: signal ");
  appendNumber(header, sizeof header, signo, 1);
  append(header, sizeof header, " (");
  append(header, sizeof header, signalName(signo));
  append(header, sizeof header, ")\n\nBacktrace:\n");
  writeAll(fd, header);
  void* frames[64];
  int count = backtrace(frames, 64);
  backtrace_symbols_fd(frames, count, fd);
  close(fd);
}

void crashHandler(int signo) {
  const long self = syscall(SYS_gettid);
  long none = 0;
  if (!gReporter.compare_exchange_strong(none, self)) {
    if (none != self) {
      // Another thread is writing its report and ends the process when
      // done. Wait for that; only if it never does (its thread is stuck)
      // does this crash write a report of its own.
      const timespec slice{0, 10 * 1000 * 1000};
      for (int i = 0; i < 500; ++i) nanosleep(&slice, nullptr);
      writeReport(signo);
    }
    // Otherwise the handler itself failed: what was written stays as it is.
  } else {
    // The claim is never given back: the process ends with this report.
    writeReport(signo);
  }
  // Die of the same signal, with the default action restored: it is
  // blocked while the handler runs and strikes as soon as it returns.
  signal(signo, SIG_DFL);
  raise(signo);
}

}  // namespace

std::string MVCrashLog::crashLogDirectory() {
  return MVAppendPathComponent(MVLocalPaths::logDirectory(true), "DiagnosticReports");
}

void MVCrashLog::install(const std::string& applicationName) {
  std::string folder = crashLogDirectory();
  // Create the folder now: the handler must not have to.
  for (std::size_t i = 1; i <= folder.size(); ++i)
    if (i == folder.size() || folder[i] == '/') mkdir(folder.substr(0, i).c_str(), 0700);
  std::strncpy(gFolder, folder.c_str(), sizeof gFolder - 1);
  std::strncpy(gName, applicationName.c_str(), sizeof gName - 1);
  std::strncpy(gHost, MVProcessInfo::hostName().c_str(), sizeof gHost - 1);
  std::strncpy(gExecutable, MVProcessInfo::executablePath().c_str(), sizeof gExecutable - 1);

  // backtrace() loads its unwinder on first use; do that here, not in the handler.
  void* warm[1];
  backtrace(warm, 1);

  gInstalled.store(true, std::memory_order_release);
  prepareThread();

  // The handler stays installed while it runs (no reset on entry): a second
  // thread that crashes meanwhile must reach it and wait, not kill the
  // process halfway through the first report. The other fatal signals wait
  // while it runs.
  struct sigaction action {};
  action.sa_handler = crashHandler;
  action.sa_flags = SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int signo : kFatalSignals) sigaddset(&action.sa_mask, signo);
  for (int signo : kFatalSignals) sigaction(signo, &action, nullptr);
}

void MVCrashLog::prepareThread() {
  if (!gInstalled.load(std::memory_order_acquire) || tAltStack.base) return;
  // A thread that has one already (a sanitizer gives every thread its own)
  // keeps it.
  stack_t current{};
  if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE)) return;
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t size = kAltStackSize + page;
  void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (base == MAP_FAILED) return;
  mprotect(base, page, PROT_NONE);
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(base) + page;
  stack.ss_size = kAltStackSize;
  if (sigaltstack(&stack, nullptr) != 0) {
    munmap(base, size);
    return;
  }
  tAltStack.base = base;
  tAltStack.size = size;
}
