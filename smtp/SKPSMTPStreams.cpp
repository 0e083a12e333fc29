#include "SKPSMTPStreams.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <vector>

#include "MVFormat.h"
#include "MVRunLoop.h"

namespace {

constexpr auto kWriteStallLimit = std::chrono::seconds(60);

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

SKPSMTPError posixError(int code) {
  return {"NSPOSIXErrorDomain", code, std::strerror(code), ""};
}

bool isIPAddress(const std::string& host) {
  in6_addr buffer;
  return inet_pton(AF_INET, host.c_str(), &buffer) == 1 || inet_pton(AF_INET6, host.c_str(), &buffer) == 1;
}

// A socket BIO that writes with MSG_NOSIGNAL: a peer that vanishes mid-write
// must give an error, not a SIGPIPE that ends the agent.
int bioFd(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

BIO_METHOD* quietSocketMethod() {
  static BIO_METHOD* method = [] {
    BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "SKPSMTP socket");
    BIO_meth_set_write(m, [](BIO* bio, const char* data, int length) -> int {
      BIO_clear_retry_flags(bio);
      ssize_t n = ::send(bioFd(bio), data, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_write(bio);
      return static_cast<int>(n);
    });
    BIO_meth_set_read(m, [](BIO* bio, char* data, int length) -> int {
      BIO_clear_retry_flags(bio);
      ssize_t n = ::recv(bioFd(bio), data, static_cast<size_t>(length), MSG_DONTWAIT);
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_read(bio);
      return static_cast<int>(n);
    });
    BIO_meth_set_ctrl(m, [](BIO*, int command, long, void*) -> long { return command == BIO_CTRL_FLUSH ? 1 : 0; });
    BIO_meth_set_create(m, [](BIO* bio) -> int {
      BIO_set_init(bio, 1);
      return 1;
    });
    return m;
  }();
  return method;
}

}  // namespace

// The socket behind a stream pair, its connection progress and its TLS state.
// Lives on the main thread; callbacks from the loop and the resolver hold it
// only weakly, so it goes away with its last stream.
class SKPSMTPSocketCore : public std::enable_shared_from_this<SKPSMTPSocketCore> {
 public:
  enum class Phase { NotOpen, Resolving, Connecting, Open, AtEnd, Error, Closed };

  SKPSMTPSocketCore(std::string host, int port) : host_(std::move(host)), port_(port) {}
  explicit SKPSMTPSocketCore(int connectedFd) : fd_(connectedFd), preconnected_(true) {}
  ~SKPSMTPSocketCore() { unwatch(); }

  void attach(const std::shared_ptr<SKPSMTPStream>& stream) {
    (stream->kind() == SKPSMTPStream::Kind::Read ? reader_ : writer_) = stream;
  }

  Phase phase() const { return phase_; }
  const SKPSMTPError& error() const { return error_; }
  int fd() const { return fd_.get(); }

  void open(SKPSMTPStream& stream) {
    if (phase_ == Phase::Open) {
      post([kind = stream.kind()](SKPSMTPSocketCore& core) {
        core.deliver(kind, SKPSMTPStreamEvent::OpenCompleted);
      });
      return;
    }
    if (phase_ != Phase::NotOpen) return;
    if (preconnected_) {
      phase_ = Phase::Open;
      watch(MVRunLoop::kReadable);
      post([](SKPSMTPSocketCore& core) { core.announceOpen(); });
      return;
    }
    if (port_ < 1 || port_ > 65535) {
      phase_ = Phase::Error;
      error_ = posixError(EINVAL);
      post([](SKPSMTPSocketCore& core) { core.deliverBoth(SKPSMTPStreamEvent::ErrorOccurred); });
      return;
    }
    phase_ = Phase::Resolving;
    std::weak_ptr<SKPSMTPSocketCore> weak = weak_from_this();
    MVRunLoop::detachThread([weak, host = host_, port = port_] {
      addrinfo hints{};
      hints.ai_family = AF_UNSPEC;
      hints.ai_socktype = SOCK_STREAM;
      addrinfo* found = nullptr;
      int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
      std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, &freeaddrinfo);
      std::vector<Address> addresses;
      for (addrinfo* a = found; rc == 0 && a; a = a->ai_next) {
        Address address;
        std::memcpy(&address.storage, a->ai_addr, a->ai_addrlen);
        address.length = a->ai_addrlen;
        addresses.push_back(address);
      }
      MVRunLoop::main().performOnMainThread(
          [weak, rc, addresses] {
            if (auto core = weak.lock()) core->resolved(rc, addresses);
          },
          false);
    });
  }

  // Called when a stream closes or goes away; the socket ends with the last one.
  void streamClosed() {
    if (isLive(reader_) || isLive(writer_)) return;
    shutdown();
  }

  long read(std::uint8_t* buffer, std::size_t maxLength) {
    if (phase_ != Phase::Open) return phase_ == Phase::Error ? -1 : 0;
    if (ssl_) {
      ERR_clear_error();
      int n = SSL_read(ssl_.get(), buffer, static_cast<int>(std::min<std::size_t>(maxLength, INT_MAX)));
      if (n > 0) return n;
      int code = SSL_get_error(ssl_.get(), n);
      if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE || code == SSL_ERROR_ZERO_RETURN) return 0;
      setError(tlsError(code));
      return -1;
    }
    ssize_t n = ::recv(fd_.get(), buffer, maxLength, MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    setError(posixError(errno));
    return -1;
  }

  long write(const std::uint8_t* bytes, std::size_t length) {
    if (phase_ == Phase::NotOpen || phase_ == Phase::Resolving || phase_ == Phase::Connecting) {
      waitConditions_ = MVRunLoop::kWritable;
      return 0;
    }
    if (phase_ != Phase::Open) {
      if (phase_ != Phase::Error) setError(posixError(phase_ == Phase::Closed ? EBADF : EPIPE));
      return -1;
    }
    if (ssl_) {
      ERR_clear_error();
      int n = SSL_write(ssl_.get(), bytes, static_cast<int>(std::min<std::size_t>(length, INT_MAX)));
      if (n > 0) {
        handshakeDone_ = true;
        return n;
      }
      int code = SSL_get_error(ssl_.get(), n);
      if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
        waitConditions_ = code == SSL_ERROR_WANT_READ ? MVRunLoop::kReadable : MVRunLoop::kWritable;
        return 0;
      }
      setError(tlsError(code));
      return -1;
    }
    ssize_t n = ::send(fd_.get(), bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
      waitConditions_ = MVRunLoop::kWritable;
      return 0;
    }
    setError(posixError(errno));
    return -1;
  }

  // What a write that accepted nothing waits for.
  unsigned waitConditions() const { return waitConditions_; }

  void failWithTimeout() { setError(posixError(ETIMEDOUT)); }

  bool startTLS(const SKPSMTPTLSSettings& settings) {
    if (phase_ != Phase::Open) return false;
    if (ssl_) return true;
    ctx_.reset(SSL_CTX_new(TLS_client_method()));
    if (!ctx_) return false;
    SSL_CTX_set_min_proto_version(ctx_.get(), TLS1_2_VERSION);
    // A peer that closes without close_notify is an ordinary end of stream here.
    SSL_CTX_set_options(ctx_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    if (settings.validatesCertificateChain) {
      SSL_CTX_set_default_verify_paths(ctx_.get());
      SSL_CTX_set_verify(ctx_.get(), SSL_VERIFY_PEER, nullptr);
    } else {
      SSL_CTX_set_verify(ctx_.get(), SSL_VERIFY_NONE, nullptr);
    }
    ssl_.reset(SSL_new(ctx_.get()));
    BIO* bio = ssl_ ? BIO_new(quietSocketMethod()) : nullptr;
    if (!bio) {
      ssl_.reset();
      return false;
    }
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd_.get())));
    SSL_set_bio(ssl_.get(), bio, bio);
    SSL_set_mode(ssl_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    const std::string& name = settings.peerName;
    bool ipLiteral = isIPAddress(name);
    // Server name indication carries host names only, never address literals.
    if (!name.empty() && !ipLiteral) SSL_set_tlsext_host_name(ssl_.get(), name.c_str());
    if (settings.validatesCertificateChain && !name.empty()) {
      if (ipLiteral)
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), name.c_str());
      else
        SSL_set1_host(ssl_.get(), name.c_str());
    }
    SSL_set_connect_state(ssl_.get());
    continueHandshake();
    return true;
  }

  // While a write waits for room, the stream's own events are held back so the
  // loop turned by the wait cannot re-enter the stream's delegate.
  void holdEvents() {
    if (holdDepth_++ == 0) unwatch(false);
  }
  void resumeEvents() {
    if (--holdDepth_ > 0 || phase_ != Phase::Open) return;
    watch(watched_);
    // Data may have arrived (or be buffered inside TLS) while events were held.
    post([](SKPSMTPSocketCore& core) { core.onReady(MVRunLoop::kReadable); });
  }

 private:
  static bool isLive(const std::weak_ptr<SKPSMTPStream>& weak) {
    auto stream = weak.lock();
    return stream && stream->streamStatus() != SKPSMTPStreamStatus::Closed;
  }

  void post(std::function<void(SKPSMTPSocketCore&)> work) {
    std::weak_ptr<SKPSMTPSocketCore> weak = weak_from_this();
    MVRunLoop::main().performOnMainThread(
        [weak, work = std::move(work)] {
          if (auto core = weak.lock()) work(*core);
        },
        false);
  }

  void deliver(SKPSMTPStream::Kind kind, SKPSMTPStreamEvent event) {
    auto stream = (kind == SKPSMTPStream::Kind::Read ? reader_ : writer_).lock();
    if (stream) stream->deliver(event);
  }
  void deliverBoth(SKPSMTPStreamEvent event) {
    auto self = shared_from_this();
    deliver(SKPSMTPStream::Kind::Read, event);
    deliver(SKPSMTPStream::Kind::Write, event);
  }
  void announceOpen() {
    deliverBoth(SKPSMTPStreamEvent::OpenCompleted);
    if (phase_ == Phase::Open) deliver(SKPSMTPStream::Kind::Write, SKPSMTPStreamEvent::CanAcceptBytes);
  }

  void watch(unsigned conditions) {
    unwatch(false);
    watched_ = conditions;
    if (holdDepth_ > 0 || fd_.get() < 0) return;
    std::weak_ptr<SKPSMTPSocketCore> weak = weak_from_this();
    source_ = MVRunLoop::main().addIOSource(fd_.get(), conditions, [weak](unsigned bits) {
      if (auto core = weak.lock()) core->onReady(bits);
      // The core replaces or invalidates its source itself when it needs to.
      return true;
    });
  }
  void unwatch(bool forget = true) {
    if (source_) source_->invalidate();
    source_.reset();
    if (forget) watched_ = 0;
  }

  void setError(const SKPSMTPError& error) {
    phase_ = Phase::Error;
    error_ = error;
    unwatch();
  }
  void fail(const SKPSMTPError& error) {
    setError(error);
    deliverBoth(SKPSMTPStreamEvent::ErrorOccurred);
  }

  SKPSMTPError tlsError(int sslErrorCode) {
    long verify = ssl_ ? SSL_get_verify_result(ssl_.get()) : X509_V_OK;
    if (verify != X509_V_OK)
      return {"OpenSSLErrorDomain", verify,
              MVFormatString("TLS certificate rejected: %s", X509_verify_cert_error_string(verify)), ""};
    unsigned long code = ERR_peek_last_error();
    if (sslErrorCode == SSL_ERROR_SYSCALL && code == 0) return posixError(errno ? errno : ECONNRESET);
    char text[256] = "unknown error";
    if (code) ERR_error_string_n(code, text, sizeof text);
    return {"OpenSSLErrorDomain", static_cast<long>(code), MVFormatString("TLS failure: %s", text), ""};
  }

  void resolved(int rc, const std::vector<Address>& addresses) {
    if (phase_ != Phase::Resolving) return;
    if (rc != 0) {
      fail({"kCFStreamErrorDomainNetDB", rc, gai_strerror(rc), ""});
      return;
    }
    addresses_ = addresses;
    nextAddress_ = 0;
    connectNext(EHOSTUNREACH);
  }

  // Tries the host's addresses in order until one accepts.
  void connectNext(int lastError) {
    while (nextAddress_ < addresses_.size()) {
      const Address& address = addresses_[nextAddress_++];
      fd_.reset(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      if (fd_.get() < 0) {
        lastError = errno;
        continue;
      }
      if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address.storage), address.length) == 0) {
        connected();
        return;
      }
      if (errno == EINPROGRESS) {
        phase_ = Phase::Connecting;
        watch(MVRunLoop::kWritable);
        return;
      }
      lastError = errno;
      fd_.reset();
    }
    fd_.reset();
    fail(posixError(lastError));
  }

  void connected() {
    phase_ = Phase::Open;
    watch(MVRunLoop::kReadable);
    announceOpen();
  }

  bool continueHandshake() {
    ERR_clear_error();
    int rc = SSL_do_handshake(ssl_.get());
    if (rc == 1) {
      handshakeDone_ = true;
      watch(MVRunLoop::kReadable);
      return true;
    }
    int code = SSL_get_error(ssl_.get(), rc);
    if (code == SSL_ERROR_WANT_READ)
      watch(MVRunLoop::kReadable);
    else if (code == SSL_ERROR_WANT_WRITE)
      watch(MVRunLoop::kReadable | MVRunLoop::kWritable);
    else
      fail(tlsError(code));
    return false;
  }

  void onReady(unsigned bits) {
    auto self = shared_from_this();
    if (phase_ == Phase::Connecting) {
      int error = 0;
      socklen_t length = sizeof error;
      if (getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
      if (error == EINPROGRESS) return;
      if (error == 0)
        connected();
      else
        connectNext(error);
      return;
    }
    if (phase_ != Phase::Open || holdDepth_ > 0) return;
    if (ssl_ && !handshakeDone_ && !continueHandshake()) return;
    if (ssl_ && (bits & MVRunLoop::kWritable) && SSL_want_write(ssl_.get()) == 0) watch(MVRunLoop::kReadable);
    checkReadable();
    // TLS can hold decrypted bytes that no socket event will announce.
    while (ssl_ && phase_ == Phase::Open && holdDepth_ == 0) {
      int pending = SSL_pending(ssl_.get());
      if (pending <= 0) break;
      deliver(SKPSMTPStream::Kind::Read, SKPSMTPStreamEvent::HasBytesAvailable);
      if (ssl_ && SSL_pending(ssl_.get()) >= pending) break;
    }
  }

  void checkReadable() {
    char byte;
    if (ssl_) {
      ERR_clear_error();
      int n = SSL_peek(ssl_.get(), &byte, 1);
      if (n > 0) {
        deliver(SKPSMTPStream::Kind::Read, SKPSMTPStreamEvent::HasBytesAvailable);
        return;
      }
      int code = SSL_get_error(ssl_.get(), n);
      if (code == SSL_ERROR_WANT_READ) return;
      if (code == SSL_ERROR_WANT_WRITE) {
        watch(MVRunLoop::kReadable | MVRunLoop::kWritable);
        return;
      }
      if (code == SSL_ERROR_ZERO_RETURN || (code == SSL_ERROR_SYSCALL && errno == 0 && ERR_peek_error() == 0))
        reachEnd();
      else
        fail(tlsError(code));
      return;
    }
    ssize_t n = ::recv(fd_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0)
      deliver(SKPSMTPStream::Kind::Read, SKPSMTPStreamEvent::HasBytesAvailable);
    else if (n == 0)
      reachEnd();
    else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
      fail(posixError(errno));
  }

  void reachEnd() {
    phase_ = Phase::AtEnd;
    unwatch();
    deliver(SKPSMTPStream::Kind::Read, SKPSMTPStreamEvent::EndEncountered);
  }

  void shutdown() {
    unwatch();
    if (ssl_ && handshakeDone_ && phase_ == Phase::Open) {
      ERR_clear_error();
      SSL_shutdown(ssl_.get());  // best effort close_notify; the socket is non-blocking
    }
    ssl_.reset();
    ctx_.reset();
    fd_.reset();
    phase_ = Phase::Closed;
  }

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
  std::unique_ptr<SSL_CTX, SSLCtxFree> ctx_;
  std::unique_ptr<SSL, SSLFree> ssl_;
  bool handshakeDone_ = false;
  std::weak_ptr<SKPSMTPStream> reader_;
  std::weak_ptr<SKPSMTPStream> writer_;
};

// ---------------------------------------------------------------------------

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
  if (closed_ || !opened_) return false;
  return core_->startTLS(settings);
}

void SKPSMTPStream::deliver(SKPSMTPStreamEvent event) {
  if (closed_ || !opened_ || !delegate_) return;
  Delegate delegate = delegate_;  // the delegate may close or replace itself
  delegate(*this, event);
}

// ---------------------------------------------------------------------------

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
