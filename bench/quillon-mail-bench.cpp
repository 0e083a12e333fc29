// quillon-mail-bench: sends one render e-mail through the agent's own SMTP
// client, so that a whole send can be timed beside msmtp sending the same
// message to the same relay.
//
// Usage: quillon-mail-bench HOST PORT FROM TO
// Exits 0 when the relay accepted the message, 1 otherwise.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "MVRunLoop.h"
#include "PlatformLinux.h"
#include "SKPSMTPMessage.h"

namespace {

class Outcome final : public SKPSMTPMessageDelegate {
 public:
  void messageSent(const std::shared_ptr<SKPSMTPMessage>&) override {
    sent = true;
    MVRunLoop::main().stop();
  }
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>&, const SKPSMTPError& error) override {
    std::fprintf(stderr, "quillon-mail-bench: %s\n", error.localizedDescription.c_str());
    MVRunLoop::main().stop();
  }
  bool sent = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: quillon-mail-bench HOST PORT FROM TO\n");
    return 2;
  }
  auto loop = quillon::createPlatformRunLoop();
  MVRunLoop::setMain(loop);

  Outcome outcome;
  auto message = SKPSMTPMessage::create();
  message->setRelayHost(argv[1]);
  message->setRelayPorts({std::atoi(argv[2])});
  message->setFromEmail(argv[3]);
  message->setToEmail(argv[4]);
  message->setSubject("Documentary Final v12.mov Render Finished");
  message->setParts({SKPSMTPPart{
      {kSKPSMTPPartContentTypeKey, "text/plain"},
      {kSKPSMTPPartMessageKey, "The render \"Documentary Final v12.mov\" on computer \"Suite 3\" has now finished."},
      {kSKPSMTPPartContentTransferEncodingKey, "8bit"}}});
  message->setDelegate(&outcome);
  if (message->send()) loop->run();
  message->setDelegate(nullptr);
  return outcome.sent ? 0 : 1;
}
