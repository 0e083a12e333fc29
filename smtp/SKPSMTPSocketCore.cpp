#include "SKPSMTPSocketCore.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "MVFormat.h"
#include "MVOpenSSL.h"

namespace {

constexpr const char* kCertificateRejected = "TLS certificate rejected: ";

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

void SKPSMTPSocketCore::attach(const std::shared_ptr<SKPSMTPStream>& stream) {
  (stream->kind() == SKPSMTPStream::Kind::Read ? reader_ : writer_) = stream;
}

void SKPSMTPSocketCore::open(SKPSMTPStream& stream) {
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

void SKPSMTPSocketCore::streamClosed() {
  if (isLive(reader_) || isLive(writer_)) return;
  shutdown();
}

long SKPSMTPSocketCore::read(std::uint8_t* buffer, std::size_t maxLength) {
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

long SKPSMTPSocketCore::write(const std::uint8_t* bytes, std::size_t length) {
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

bool isCertificateRejection(const SKPSMTPError& error) {
  return error.domain == "OpenSSLErrorDomain" && error.localizedDescription.rfind(kCertificateRejected, 0) == 0;
}

bool SKPSMTPSocketCore::startTLS(const SKPSMTPTLSSettings& settings) {
  if (phase_ == Phase::NotOpen || phase_ == Phase::Resolving || phase_ == Phase::Connecting) {
    if (preconnected_) return false;
    tlsOnConnect_ = settings;
    return true;
  }
  if (phase_ != Phase::Open) return false;
  if (ssl_) return true;
  // Nothing may be read in plain text once TLS was agreed on: what the peer
  // (or someone on the path) sent before the handshake is dropped unread.
  char discard[1024];
  while (::recv(fd_.get(), discard, sizeof discard, MSG_DONTWAIT) > 0) {
  }
  // Without TLS nothing more may be sent: the next command would carry the
  // credentials in plain text. Failing the connection reports it instead.
  if (!MVLoadOpenSSL()) {
    fail({"OpenSSLErrorDomain", 0, "TLS failure: the OpenSSL library cannot be loaded", ""});
    return false;
  }
  ctx_.reset(SSL_CTX_new(TLS_client_method()));
  if (!ctx_) {
    fail(tlsError(SSL_ERROR_SSL));
    return false;
  }
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
    fail(tlsError(SSL_ERROR_SSL));
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

void SKPSMTPSocketCore::holdEvents() {
  if (holdDepth_++ == 0) unwatch(false);
}

void SKPSMTPSocketCore::resumeEvents() {
  if (--holdDepth_ > 0 || phase_ != Phase::Open) return;
  watch(watched_);
  // Data may have arrived (or be buffered inside TLS) while events were held.
  post([](SKPSMTPSocketCore& core) { core.onReady(MVRunLoop::kReadable); });
}

bool SKPSMTPSocketCore::isLive(const std::weak_ptr<SKPSMTPStream>& weak) {
  auto stream = weak.lock();
  return stream && stream->streamStatus() != SKPSMTPStreamStatus::Closed;
}

void SKPSMTPSocketCore::post(std::function<void(SKPSMTPSocketCore&)> work) {
  std::weak_ptr<SKPSMTPSocketCore> weak = weak_from_this();
  MVRunLoop::main().performOnMainThread(
      [weak, work = std::move(work)] {
        if (auto core = weak.lock()) work(*core);
      },
      false);
}

void SKPSMTPSocketCore::deliver(SKPSMTPStream::Kind kind, SKPSMTPStreamEvent event) {
  auto stream = (kind == SKPSMTPStream::Kind::Read ? reader_ : writer_).lock();
  if (stream) stream->deliver(event);
}

void SKPSMTPSocketCore::deliverBoth(SKPSMTPStreamEvent event) {
  auto self = shared_from_this();
  deliver(SKPSMTPStream::Kind::Read, event);
  deliver(SKPSMTPStream::Kind::Write, event);
}

void SKPSMTPSocketCore::announceOpen() {
  deliverBoth(SKPSMTPStreamEvent::OpenCompleted);
  if (phase_ == Phase::Open) deliver(SKPSMTPStream::Kind::Write, SKPSMTPStreamEvent::CanAcceptBytes);
}

void SKPSMTPSocketCore::watch(unsigned conditions) {
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

void SKPSMTPSocketCore::unwatch(bool forget) {
  if (source_) source_->invalidate();
  source_.reset();
  if (forget) watched_ = 0;
}

void SKPSMTPSocketCore::setError(const SKPSMTPError& error) {
  phase_ = Phase::Error;
  error_ = error;
  unwatch();
}

void SKPSMTPSocketCore::fail(const SKPSMTPError& error) {
  setError(error);
  deliverBoth(SKPSMTPStreamEvent::ErrorOccurred);
}

SKPSMTPError SKPSMTPSocketCore::tlsError(int sslErrorCode) {
  long verify = ssl_ ? SSL_get_verify_result(ssl_.get()) : X509_V_OK;
  if (verify != X509_V_OK)
    return {"OpenSSLErrorDomain", verify,
            std::string(kCertificateRejected) + X509_verify_cert_error_string(verify), ""};
  unsigned long code = ERR_peek_last_error();
  if (sslErrorCode == SSL_ERROR_SYSCALL && code == 0) return posixError(errno ? errno : ECONNRESET);
  char text[256] = "unknown error";
  if (code) ERR_error_string_n(code, text, sizeof text);
  return {"OpenSSLErrorDomain", static_cast<long>(code), MVFormatString("TLS failure: %s", text), ""};
}

void SKPSMTPSocketCore::resolved(int rc, const std::vector<Address>& addresses) {
  if (phase_ != Phase::Resolving) return;
  if (rc != 0) {
    fail({"kCFStreamErrorDomainNetDB", rc, gai_strerror(rc), ""});
    return;
  }
  addresses_ = addresses;
  nextAddress_ = 0;
  connectNext(EHOSTUNREACH);
}

void SKPSMTPSocketCore::connectNext(int lastError) {
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

void SKPSMTPSocketCore::connected() {
  phase_ = Phase::Open;
  watch(MVRunLoop::kReadable);
  if (tlsOnConnect_) {
    SKPSMTPTLSSettings settings = *std::exchange(tlsOnConnect_, std::nullopt);
    if (!startTLS(settings)) return;
    if (phase_ != Phase::Open) return;
  }
  announceOpen();
}

bool SKPSMTPSocketCore::continueHandshake() {
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

void SKPSMTPSocketCore::onReady(unsigned bits) {
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

void SKPSMTPSocketCore::checkReadable() {
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

void SKPSMTPSocketCore::reachEnd() {
  phase_ = Phase::AtEnd;
  unwatch();
  deliver(SKPSMTPStream::Kind::Read, SKPSMTPStreamEvent::EndEncountered);
}

void SKPSMTPSocketCore::shutdown() {
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
void SKPSMTPSocketCore::failWithTimeout() { setError(posixError(ETIMEDOUT)); }
