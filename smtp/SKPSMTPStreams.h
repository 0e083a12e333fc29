// Socket streams for the SMTP client: the read and write stream of one TCP
// connection, with an in-place upgrade to TLS.
//
// On the Mac these are the platform's socket streams. Here one non-blocking
// socket is shared by a read stream and a write stream; the socket closes
// when both streams are closed or gone. Events reach the stream's delegate on
// the main loop (MVRunLoop), and every operation must be called on the main
// thread. Host names are resolved on a worker thread so the main loop never
// waits on DNS; every address of the host is tried in turn.
//
// TLS (OpenSSL): TLS 1.2 or newer, server name indication for host names.
// With certificate validation on, the system's CA store and a host-name (or
// IP address) check apply; with it off, no verification at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "SKPSMTPError.h"

enum class SKPSMTPStreamEvent { OpenCompleted, HasBytesAvailable, CanAcceptBytes, ErrorOccurred, EndEncountered };
enum class SKPSMTPStreamStatus { NotOpen, Opening, Open, AtEnd, Closed, Error };

struct SKPSMTPTLSSettings {
  bool validatesCertificateChain = true;
  std::string peerName;  // checked against the certificate and sent as SNI
};

class SKPSMTPSocketCore;

class SKPSMTPStream {
 public:
  enum class Kind { Read, Write };
  using Delegate = std::function<void(SKPSMTPStream&, SKPSMTPStreamEvent)>;

  SKPSMTPStream(std::shared_ptr<SKPSMTPSocketCore> core, Kind kind);
  ~SKPSMTPStream();
  SKPSMTPStream(const SKPSMTPStream&) = delete;
  SKPSMTPStream& operator=(const SKPSMTPStream&) = delete;

  Kind kind() const { return kind_; }
  void setDelegate(Delegate delegate) { delegate_ = std::move(delegate); }

  // Starts connecting (the first open of a pair does it); events follow on
  // the main loop. Opening a stream whose port is outside 1..65535 reports
  // ErrorOccurred.
  void open();
  // Stops events to this stream; the socket closes with the last stream.
  void close();

  SKPSMTPStreamStatus streamStatus() const;
  SKPSMTPError streamError() const;

  // Read stream: bytes read (> 0), 0 when nothing is available (or at the
  // end of the stream, which EndEncountered announces), -1 on error.
  [[nodiscard]] long read(std::uint8_t* buffer, std::size_t maxLength);
  // Write stream: bytes accepted (may be 0 when the socket is full or the
  // connection or TLS handshake is still under way), -1 on error.
  [[nodiscard]] long write(const std::uint8_t* bytes, std::size_t length);

  // Upgrades the shared socket to TLS; setting it on the second stream of a
  // pair changes nothing more. Set before the connection is up, the TLS
  // handshake starts as soon as it is (implicit TLS). Bytes that arrived in
  // plain text and were not read yet are thrown away first. False when the
  // stream is closed.
  bool setSSLSettings(const SKPSMTPTLSSettings& settings);

  // Internal: event delivery from the socket.
  void deliver(SKPSMTPStreamEvent event);
  SKPSMTPSocketCore& core() { return *core_; }

 private:
  std::shared_ptr<SKPSMTPSocketCore> core_;
  Kind kind_;
  Delegate delegate_;
  bool opened_ = false;
  bool closed_ = false;
};

// Whether `error` says that the server's certificate failed the checks.
bool isCertificateRejection(const SKPSMTPError& error);

// Makes the read and write stream of a TCP connection to `host` and `port`.
// Nothing is resolved or connected until a stream is opened. An absent
// out-parameter's stream is released at once. False (both outputs empty)
// when no connection can be described, i.e. for an empty host name.
bool getStreamsToHostNamed(const std::string& host, int port, std::shared_ptr<SKPSMTPStream>* inputStream,
                           std::shared_ptr<SKPSMTPStream>* outputStream);

// Writes all `length` bytes, waiting while the socket is full. On the main
// thread the wait turns the main loop in short slices, so the agent keeps
// working; the stream's own events are held back meanwhile. Returns the count
// written, 0 for a length below 1, or a negative value on error (the
// stream's error tells which). A peer that accepts nothing for 60 seconds is
// an error (ETIMEDOUT) rather than a hang.
long CFWriteStreamWriteFully(SKPSMTPStream& stream, const std::uint8_t* bytes, long length);
long CFWriteStreamWriteFully(SKPSMTPStream& stream, const std::string& bytes);

// Raised by CFStreamCreatePairWithUNIXSocketPair.
class SKPSMTPStreamException : public std::runtime_error {
 public:
  explicit SKPSMTPStreamException(const std::string& reason) : std::runtime_error(reason) {}
  static const char* name() { return "HSK_CFUtilitiesErrorDomain"; }
};

// A connected pair of local stream sockets: the first wraps as the read
// stream, the second as the write stream, each closing its socket when
// closed, so bytes written to the write stream arrive on the read stream.
// Throws SKPSMTPStreamException ("Unable to create socket pair, errno: %d").
void CFStreamCreatePairWithUNIXSocketPair(std::shared_ptr<SKPSMTPStream>* readStream,
                                          std::shared_ptr<SKPSMTPStream>* writeStream);
