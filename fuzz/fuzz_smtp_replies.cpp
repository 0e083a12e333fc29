// What an SMTP relay sends back: greetings, capability lists, prompts and
// verdicts, arriving in reads of any size. A hostile or broken server must
// never make the session report twice, report a code it has no reason for,
// or touch the message after the delegate dropped it.
//
// Input: the first byte picks the session's switches (bit 0: authentication
// required, bit 1: encryption wanted, bit 2: port 465, where the session is
// TLS from the start); the rest is the server's byte stream,
// where "|" ends a read. Reads longer than the client's 1024-byte buffer are
// cut as the socket reader cuts them.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "FuzzSupport.h"
#include "SKPSMTPMessage.h"

namespace {

struct Delegate : SKPSMTPMessageDelegate {
  // The only strong reference, dropped inside the callback as the e-mail
  // notification drops its own.
  std::shared_ptr<SKPSMTPMessage> message;
  int reports = 0;

  void messageSent(const std::shared_ptr<SKPSMTPMessage>& sent) override {
    ++reports;
    if (sent->sendState() != kSKPSMTPSent) std::abort();
    message.reset();
  }
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>&, const SKPSMTPError& error) override {
    ++reports;
    // Without a connection only the server's own verdicts can fail a send.
    switch (error.code) {
      case kSKPSMTPErrorUnsupportedLogin:
      case kSKPSMTPErrorInvalidUserPass:
      case kSKPSMTPErrorNoRelay:
      case kSKPSMTPErrorInvalidMessage:
      case kSKPSMTPErrorNoEncryption: break;
      default: std::abort();
    }
    if (error.domain != kSKPSMTPMessageErrorDomain || error.localizedDescription.empty()) std::abort();
    message.reset();
  }
};

}  // namespace

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  Delegate delegate;
  delegate.message = SKPSMTPMessage::create();
  SKPSMTPMessage& message = *delegate.message;
  message.setRequiresAuth(data[0] & 1);
  message.setWantsSecure(data[0] & 2);
  message.setLogin("ali");
  message.setPass("sesame");
  message.setRelayHost("relay.example");
  message.setFromEmail("render@studio.example");
  message.setToEmail("editor@studio.example; Bea <b@y.example>,");
  message.setSubject("clip.mov Finished");
  message.setParts({{{kSKPSMTPPartContentTypeKey, "text/plain"}, {kSKPSMTPPartMessageKey, "Done."}}});
  message.setDelegate(&delegate);
  if (data[0] & 4) message.setRelayPorts({kSKPSMTPImplicitTLSPort});
  const bool wantsSecure = data[0] & 2;
  std::weak_ptr<SKPSMTPMessage> weak = delegate.message;

  std::string_view stream = quillon_fuzz::asText(data + 1, size - 1);
  while (!stream.empty()) {
    std::size_t bar = stream.find('|');
    std::string_view piece = stream.substr(0, bar);
    stream = bar == std::string_view::npos ? std::string_view() : stream.substr(bar + 1);
    while (!piece.empty()) {
      std::string_view read = piece.substr(0, 1024);
      piece.remove_prefix(read.size());
      auto alive = weak.lock();
      if (!alive) break;
      int before = alive->sendState();
      alive->receiveBytesForTesting(read);
      int after = alive->sendState();
      if (after < kSKPSMTPConnecting || after > kSKPSMTPSent) std::abort();
      // The dialogue only moves forward, except that STARTTLS returns to
      // the EHLO reply once.
      if (after < before && !(before == kSKPSMTPAwaitingTlsReady && after == kSKPSMTPAwaitingEhloReply)) std::abort();
      // Encryption wanted: no authentication and no envelope in plain text.
      if (wantsSecure && !alive->isSecure() && after >= kSKPSMTPAwaitingUsernamePrompt) std::abort();
    }
  }
  if (delegate.reports > 1) std::abort();
  // Reported means released: nothing else holds the message.
  if (delegate.reports == 1 && !weak.expired()) std::abort();
  return 0;
}
