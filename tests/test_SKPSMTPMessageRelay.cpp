// The SMTP session against a real relay: certificate checks and the promise of "use TLS", encryption or no
// send. A network namespace of its own lets a relay listen on port 465.
#include <gtest/gtest.h>

#include "MVLog.h"
#include "SMTPRelay.h"

using namespace quillon_test;

namespace {

class SKPSMTPMessageRelay : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_SKPSMTPMessageRelay", true);
    ASSERT_EQ(enterPrivateNetwork(), "");
  }

  // Sends as "ali" with "sesame", TLS wanted; returns what went to the console.
  static std::string send(SMTPReports& reports, const std::string& host, int port,
                   const std::function<void(SKPSMTPMessage&)>& change = {}) {
    auto message = SKPSMTPMessage::create();
    message->setRelayHost(host);
    message->setRelayPorts({port});
    message->setRequiresAuth(true);
    message->setWantsSecure(true);
    message->setLogin("ali");
    message->setPass("sesame");
    message->setFromEmail("render@studio.example");
    message->setToEmail("editor@studio.example, producer@studio.example");
    message->setBccEmail("archive@studio.example");
    message->setSubject("clip.mov Finished");
    message->setParts({{{kSKPSMTPPartContentTypeKey, "text/plain"},
                        {kSKPSMTPPartContentTransferEncodingKey, "8bit"},
                        {kSKPSMTPPartMessageKey, "The render of clip.mov finished on Studio-Mac."}}});
    message->setTimeoutsForTesting(10, 10);
    if (change) change(*message);
    testing::internal::CaptureStderr();
    reports.sendAndWait(message, 30, 0.2);
    EXPECT_EQ(reports.count(), 1);
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(SKPSMTPMessageRelay, ValidatesTheChainAndHostNameOverStartTlsAndImplicitTls) {
  for (bool implicit : {false, true}) {
    SCOPED_TRACE(implicit ? "port 465" : "STARTTLS, only LOGIN offered");
    SMTPRelay relay(implicit ? std::vector<std::string>{"--implicit-tls", "--port", "465"}
                             : std::vector<std::string>{"--exclude", "PLAIN"});
    ASSERT_TRUE(relay.isReady()) << relay.log();
    // The system CA store holds the test's certificate: for "localhost", not 127.0.0.1, and the error says so.
    EnvOverride store("SSL_CERT_FILE", relay.certificate());
    SMTPReports trusted, mismatched;
    send(trusted, "localhost", relay.port());
    EXPECT_EQ(trusted.sent, 1);
    EXPECT_EQ(relay.messages().size(), 1u);
    send(mismatched, "127.0.0.1", relay.port());
    ASSERT_EQ(mismatched.failures.size(), 1u);
    EXPECT_EQ(mismatched.failures[0].domain, "OpenSSLErrorDomain");
    EXPECT_NE(mismatched.failures[0].localizedDescription.find("certificate"), std::string::npos)
        << mismatched.failures[0].localizedDescription;
  }
  // Without it the self-signed certificate is not trusted at all.
  SMTPRelay relay;
  SMTPReports untrusted;
  send(untrusted, "localhost", relay.port());
  ASSERT_EQ(untrusted.failures.size(), 1u);
  EXPECT_EQ(untrusted.failures[0].domain, "OpenSSLErrorDomain");
}

TEST_F(SKPSMTPMessageRelay, UseTlsMeansEncryptionOrNoSend) {
  struct Case {
    const char* name;
    std::vector<std::string> relayOptions;
    bool wantsSecure;
    long expectedCode;          // 0: delivered
    const char* onTheWire;      // a command that must have reached the relay
    const char* neverOnTheWire;
  };
  const Case cases[] = {
      {"STARTTLS on the last line of the EHLO reply, in mixed case", {"--starttls-last"}, true, 0, "STARTTLS", nullptr},
      // The plain-text noise offers PLAIN; the relay, over TLS, only LOGIN.
      {"plain text right after 220 is ignored", {"--noise-after-starttls", "--exclude", "PLAIN"}, true, 0,
       "AUTH LOGIN", "AUTH PLAIN"},
      {"port 465 without use TLS is still TLS", {"--implicit-tls", "--port", "465"}, false, 0, "EHLO", nullptr},
      {"use TLS off: AUTH in plain text, as asked", {"--no-starttls"}, false, 0, "AUTH PLAIN", nullptr},
      // The relay offers AUTH only after STARTTLS: without TLS no mechanism is left.
      {"use TLS off, AUTH only after STARTTLS", {}, false, -2, "EHLO", "AUTH"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SMTPRelay relay(c.relayOptions);
    ASSERT_TRUE(relay.isReady()) << relay.log();
    LogSince log;
    SMTPReports reports;
    const std::string console = send(reports, "127.0.0.1", relay.port(), [&](SKPSMTPMessage& m) {
      m.setWantsSecure(c.wantsSecure), m.setValidateSSLChain(false);
    });
    const std::string wire = relay.wire();
    EXPECT_NE(wire.find(c.onTheWire), std::string::npos) << wire;
    if (c.neverOnTheWire) {
      EXPECT_EQ(wire.find(c.neverOnTheWire), std::string::npos) << wire;
    }
    EXPECT_EQ(relay.messages().size(), c.expectedCode ? 0u : 1u);
    EXPECT_EQ(relay.messages().empty() ? "" : relay.messages()[0].to.back(), c.expectedCode ? "" : "archive@studio.example");
    if (c.wantsSecure) {
      EXPECT_NE(console.find("WARNING: Will not validate SSL chain!!!\n"), std::string::npos) << console;
    }
    if (c.expectedCode) {
      ASSERT_EQ(reports.failures.size(), 1u);
      EXPECT_EQ(reports.failures[0].code, c.expectedCode);
    } else {
      EXPECT_EQ(reports.sent, 1) << (reports.failures.empty() ? "" : reports.failures[0].localizedDescription);
    }
    // A password sent in plain text is said so once; an encrypted one never.
    bool clearText = c.expectedCode == 0 && std::string(c.onTheWire) == "AUTH PLAIN";
    EXPECT_EQ(log.count("without encryption"), clearText ? 1u : 0u) << log.text();
  }
}

}  // namespace
