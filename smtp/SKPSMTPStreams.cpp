#include "SKPSMTPStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "MVFormat.h"
#include "MVRunLoop.h"
#include "SKPSMTPSocketCore.h"

namespace {
constexpr auto kWriteStallLimit = std::chrono::seconds(60);
}  // namespace

SKPSMTPStream::SKPSMTPStream(std::shared_ptr<SKPSMTPSocketCore> core, Kind kind)
    : core_(std::move(core)), kind_(kind) {}

SKPSMTPStream::~SKPSMTPStream() {
  closed_ = true;
  core_->streamClosed();
}

void SKPSMTPStream::open() {
  if (opened_ || closed_) return;
  opened_ = true;
  core_->open(*this);
}

void SKPSMTPStream::close() {
  if (closed_) return;
  closed_ = true;
  delegate_ = nullptr;
  core_->streamClosed();
}

SKPSMTPStreamStatus SKPSMTPStream::streamStatus() const {
  if (closed_) return SKPSMTPStreamStatus::Closed;
  if (!opened_) return SKPSMTPStreamStatus::NotOpen;
  switch (core_->phase()) {
    case SKPSMTPSocketCore::Phase::NotOpen: return SKPSMTPStreamStatus::NotOpen;
    case SKPSMTPSocketCore::Phase::Resolving:
    case SKPSMTPSocketCore::Phase::Connecting: return SKPSMTPStreamStatus::Opening;
    case SKPSMTPSocketCore::Phase::Open: return SKPSMTPStreamStatus::Open;
    case SKPSMTPSocketCore::Phase::AtEnd: return SKPSMTPStreamStatus::AtEnd;
    case SKPSMTPSocketCore::Phase::Error: return SKPSMTPStreamStatus::Error;
    case SKPSMTPSocketCore::Phase::Closed: return SKPSMTPStreamStatus::Closed;
  }
  return SKPSMTPStreamStatus::Error;
}

SKPSMTPError SKPSMTPStream::streamError() const { return core_->error(); }

long SKPSMTPStream::read(std::uint8_t* buffer, std::size_t maxLength) {
  if (closed_ || !opened_ || kind_ != Kind::Read) return -1;
  return core_->read(buffer, maxLength);
}

long SKPSMTPStream::write(const std::uint8_t* bytes, std::size_t length) {
  if (closed_ || !opened_ || kind_ != Kind::Write) return -1;
  return core_->write(bytes, length);
}

bool SKPSMTPStream::setSSLSettings(const SKPSMTPTLSSettings& settings) {
  if (closed_) return false;
  return core_->startTLS(settings);
}

void SKPSMTPStream::deliver(SKPSMTPStreamEvent event) {
  if (closed_ || !opened_ || !delegate_) return;
  Delegate delegate = delegate_;  // the delegate may close or replace itself
  delegate(*this, event);
}


namespace {

std::shared_ptr<SKPSMTPStream> makeStream(const std::shared_ptr<SKPSMTPSocketCore>& core, SKPSMTPStream::Kind kind) {
  auto stream = std::make_shared<SKPSMTPStream>(core, kind);
  core->attach(stream);
  return stream;
}

bool waitForSocket(int fd, unsigned conditions) {
  pollfd p{fd, 0, 0};
  if (conditions & MVRunLoop::kReadable) p.events |= POLLIN;
  if (conditions & MVRunLoop::kWritable) p.events |= POLLOUT;
  return ::poll(&p, 1, 0) > 0;
}

}  // namespace

bool getStreamsToHostNamed(const std::string& host, int port, std::shared_ptr<SKPSMTPStream>* inputStream,
                           std::shared_ptr<SKPSMTPStream>* outputStream) {
  if (inputStream) inputStream->reset();
  if (outputStream) outputStream->reset();
  if (host.empty() || host.find('\0') != std::string::npos) return false;
  auto core = std::make_shared<SKPSMTPSocketCore>(host, port);
  auto input = makeStream(core, SKPSMTPStream::Kind::Read);
  auto output = makeStream(core, SKPSMTPStream::Kind::Write);
  if (inputStream) *inputStream = std::move(input);
  if (outputStream) *outputStream = std::move(output);
  return true;
}

long CFWriteStreamWriteFully(SKPSMTPStream& stream, const std::uint8_t* bytes, long length) {
  if (length < 1) return 0;
  SKPSMTPSocketCore& core = stream.core();
  auto keepAlive = core.shared_from_this();
  struct Hold {
    SKPSMTPSocketCore* core = nullptr;
    ~Hold() {
      if (core) core->resumeEvents();
    }
  } hold;

  long count = 0;
  auto lastProgress = std::chrono::steady_clock::now();
  while (count < length) {
    long n = stream.write(bytes + count, static_cast<std::size_t>(length - count));
    if (n < 0) return n;
    if (n > 0) {
      count += n;
      lastProgress = std::chrono::steady_clock::now();
      continue;
    }
    if (stream.streamStatus() == SKPSMTPStreamStatus::Error) return -1;
    if (std::chrono::steady_clock::now() - lastProgress > kWriteStallLimit) {
      core.failWithTimeout();
      return -1;
    }
    if (!hold.core && core.phase() == SKPSMTPSocketCore::Phase::Open) {
      core.holdEvents();
      hold.core = &core;
    }
    int fd = core.fd();
    unsigned conditions = core.waitConditions();
    if (MVRunLoop::hasMain() && MVRunLoop::main().isMainThread()) {
      MVRunLoop::main().runFor(0.01, [&] { return fd < 0 || waitForSocket(fd, conditions); });
    } else if (fd >= 0) {
      pollfd p{fd, static_cast<short>((conditions & MVRunLoop::kReadable ? POLLIN : 0) |
                                      (conditions & MVRunLoop::kWritable ? POLLOUT : 0)),
               0};
      ::poll(&p, 1, 10);
    } else {
      ::usleep(10000);
    }
  }
  return count;
}

long CFWriteStreamWriteFully(SKPSMTPStream& stream, const std::string& bytes) {
  return CFWriteStreamWriteFully(stream, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                 static_cast<long>(bytes.size()));
}

void CFStreamCreatePairWithUNIXSocketPair(std::shared_ptr<SKPSMTPStream>* readStream,
                                          std::shared_ptr<SKPSMTPStream>* writeStream) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    throw SKPSMTPStreamException(MVFormatString("Unable to create socket pair, errno: %d", errno));
  for (int fd : fds) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  auto reader = makeStream(std::make_shared<SKPSMTPSocketCore>(fds[0]), SKPSMTPStream::Kind::Read);
  auto writer = makeStream(std::make_shared<SKPSMTPSocketCore>(fds[1]), SKPSMTPStream::Kind::Write);
  if (readStream) *readStream = std::move(reader);
  if (writeStream) *writeStream = std::move(writer);
}
