// The socket behind a pair of SMTP streams: resolution, connection, the TLS
// upgrade and event delivery. Internal to the stream layer (SKPSMTPStreams).
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MVRunLoop.h"
#include "SKPSMTPStreams.h"
#include "MVOpenSSL.h"

// The socket behind a stream pair, its connection progress and its TLS state.
// Lives on the main thread; callbacks from the loop and the resolver hold it
// only weakly, so it goes away with its last stream.
class SKPSMTPSocketCore : public std::enable_shared_from_this<SKPSMTPSocketCore> {
 private:
  class UniqueFd {
   public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1) {
      if (fd_ >= 0) ::close(fd_);
      fd_ = fd;
    }

   private:
    int fd_ = -1;
  };

  struct SSLCtxFree {
    void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
  };
  struct SSLFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
  };

 public:
  enum class Phase { NotOpen, Resolving, Connecting, Open, AtEnd, Error, Closed };

  SKPSMTPSocketCore(std::string host, int port) : host_(std::move(host)), port_(port) {}
  explicit SKPSMTPSocketCore(int connectedFd) : fd_(connectedFd), preconnected_(true) {}
  ~SKPSMTPSocketCore() { unwatch(); }

  void attach(const std::shared_ptr<SKPSMTPStream>& stream);

  Phase phase() const { return phase_; }
  const SKPSMTPError& error() const { return error_; }
  int fd() const { return fd_.get(); }

  void open(SKPSMTPStream& stream);
  // Called when a stream closes or goes away; the socket ends with the last one.
  void streamClosed();

  long read(std::uint8_t* buffer, std::size_t maxLength);
  long write(const std::uint8_t* bytes, std::size_t length);
  // What a write that accepted nothing waits for.
  unsigned waitConditions() const { return waitConditions_; }
  void failWithTimeout();

  bool startTLS(const SKPSMTPTLSSettings& settings);

  // While a write waits for room, the stream's own events are held back so the
  // loop turned by the wait cannot re-enter the stream's delegate.
  void holdEvents();
  void resumeEvents();

 private:
  static bool isLive(const std::weak_ptr<SKPSMTPStream>& weak);
  // Runs `work` later on the main loop, unless the core is gone by then.
  void post(std::function<void(SKPSMTPSocketCore&)> work);

  void deliver(SKPSMTPStream::Kind kind, SKPSMTPStreamEvent event);
  void deliverBoth(SKPSMTPStreamEvent event);
  void announceOpen();

  void watch(unsigned conditions);
  void unwatch(bool forget = true);

  void setError(const SKPSMTPError& error);
  void fail(const SKPSMTPError& error);
  SKPSMTPError tlsError(int sslErrorCode);

  void resolved(int rc, const std::vector<Address>& addresses);

  // Tries the host's addresses in order until one accepts.
  void connectNext(int lastError);
  void connected();

  bool continueHandshake();
  void onReady(unsigned bits);

  void checkReadable();
  void reachEnd();

  void shutdown();

  std::string host_;
  int port_ = 0;
  UniqueFd fd_;
  bool preconnected_ = false;
  Phase phase_ = Phase::NotOpen;
  SKPSMTPError error_;
  std::vector<Address> addresses_;
  std::size_t nextAddress_ = 0;
  std::shared_ptr<MVIOSource> source_;
  unsigned watched_ = 0;
  int holdDepth_ = 0;
  unsigned waitConditions_ = MVRunLoop::kWritable;
  std::optional<SKPSMTPTLSSettings> tlsOnConnect_;
  std::unique_ptr<SSL_CTX, SSLCtxFree> ctx_;
  std::unique_ptr<SSL, SSLFree> ssl_;
  bool handshakeDone_ = false;
  std::weak_ptr<SKPSMTPStream> reader_;
  std::weak_ptr<SKPSMTPStream> writer_;
};
