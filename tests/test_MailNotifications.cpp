// The e-mail and text message of an ended render, from the controller to a real relay, the password in
// gnome-keyring; own network (text messages take port 25) and host-name (the computer name quoted) namespaces.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <thread>

#include "AppController.h"
#include "KeychainSecretService.h"
#include "MVEncryption.h"
#include "MVKeychain.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "PrivateSessionBus.h"
#include "QuillonPreferences.h"
#include "SMTPRelay.h"
#include "SecretTool.h"

using namespace quillon_test;

namespace {

constexpr const char* kSender = "sender@example.com";
constexpr const char* kPhoneNumber = "+1 (555) 010-0000";
constexpr const char* kTextAddress = "15550100000@txt.example";
const std::vector<std::string> kRecipients{"editor@example.com", "producer@example.com"};

using Settings = std::map<std::string, MVPlistValue>;
using Change = std::function<void(Settings&)>;

MVPlistValue dictionary(const Settings& keys) {
  MVPlistValue out{MVPlistValue::Dictionary{}};
  for (const auto& [key, value] : keys) out.set(key, value);
  return out;
}

bool storeAgentPassword(const std::string& sender, const std::string& password) {
  std::string name = "Quillon - " + sender;
  return secretToolStore(name, "acct " + shellQuote(sender) + " desc 'Email password' labl " + shellQuote(name), password);
}

// What one report to the controller sent.
struct Sent {
  std::string log;
  std::vector<RelayMessage> all;
  const RelayMessage* to(const std::string& firstRecipient) const {
    for (const auto& m : all)
      if (!m.to.empty() && m.to.front() == firstRecipient) return &m;
    return nullptr;
  }
  std::size_t logged(const std::string& part) const { return timesIn(log, part); }
};

class MailNotifications : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_MailNotifications", true);
    auto fail = [](const std::string& why) { setupError_ = why; };
    if (std::string why = enterPrivateNetwork(true); !why.empty()) return fail("no private network: " + why);
    bus_ = std::make_unique<PrivateSessionBus>();
    if (!bus_->isRunning() || !bus_->startKeyring()) return fail("no gnome-keyring on a private bus: " + bus_->error());
    // The stale sender's item holds a password the relay refuses.
    if (!storeAgentPassword(kSender, "relay-s3cret") || !storeAgentPassword("stale@example.com", "an-old-password"))
      return fail("secret-tool could not store the passwords");
    MVKeychain::setBackend(quillon::createSecretServiceKeychain());
    relay_ = std::make_unique<SMTPRelay>(
        std::vector<std::string>{"--user", kSender, "--password", "relay-s3cret", "--port", "25", "--port", "0"});
    if (!relay_->isReady()) return fail("the relay did not start:\n" + relay_->log());
    // The agent checks the relay's chain against the system store.
    setenv("SSL_CERT_FILE", relay_->certificate().c_str(), 1);
    carrierTable_ = makeTempDir("resources");
    std::filesystem::copy_file(std::string(QUILLON_SOURCE_DIR) + "/tests/mail/carriers.plist",
                               carrierTable_ + "/carriers.plist");
  }

  static void TearDownTestSuite() {
    relay_.reset();
    MVKeychain::setBackend(nullptr);  // before its bus goes away
    bus_.reset();
  }

  void SetUp() override {
    ASSERT_TRUE(setupError_.empty()) << setupError_;
    setenv("QUILLON_RESOURCES", carrierTable_.c_str(), 1);
    setHostName("studio");
    folder = makeTempDir("Renders");
  }

  void TearDown() override {
    for (auto& controller : controllers_) {
      if (waitUntil([&] { return controller->asyncJobs() <= 0; }, 60)) {
        MVRunLoop::main().runFor(0.1);  // the deferred release of the last message
        controller.reset();
      } else {
        (void)controller.release();  // a session still reports to it
      }
    }
  }

  static void setHostName(const std::string& name) { ASSERT_EQ(sethostname(name.data(), name.size()), 0); }

  // Everything the relay needs, e-mail and text message switched on, changed by `change`.
  static Settings mailSettings(const Change& change = {}) {
    std::string number = kPhoneNumber;
    MVPlistValue::Data encrypted = MVEncryption::AESEncryptData(
        std::span(reinterpret_cast<const std::uint8_t*>(number.data()), number.size()),
        MVEncryption::kTextMessagePassphrase);
    Settings s{{"notifyGrowl", 0}, {"notifySound", 0}, {"notifyEmail", 1}, {"notifyText", 1},
               {"emailFromAddress", kSender}, {"emailToAddress", "editor@example.com, producer@example.com"},
               {"emailServer", "localhost"}, {"emailPort", relay_->port(1)}, {"emailUseAuth", 1},
               {"emailAccountName", kSender}, {"emailUseTLS", 1}, {"txtMessagePhoneNumber", encrypted},
               {"txtMessageNumber", kPhoneNumber}};
    if (change) change(s);
    return s;
  }

  // A finished file in the watch folder.
  MVPlistValue watchRender(const std::string& name) {
    writeFile(folder + "/" + name, "frames of " + name);
    return dictionary({{"type", "watchFile"}, {"fullPath", folder + "/" + name}, {"watchFilename", name}});
  }

  // Reports `render` to a fresh controller (it drops a failure within five
  // seconds of another) and waits for its jobs; from a worker thread as the
  // folder check does, which then waits by polling.
  Sent notify(const Settings& settings, const MVPlistValue& render, bool failed = false, bool onWorker = false) {
    relay_->forget();
    std::filesystem::create_directories(MVLocalPaths::prefsDirectory(true));
    EXPECT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), dictionary(settings)));
    AppController& controller = *controllers_.emplace_back(std::make_unique<AppController>());
    LogSince log;
    auto report = [&] {
      failed ? controller.renderDidFail(render) : controller.renderDidFinishSuccessfully(render);
      controller.waitForAsyncJobsWithTimeout(40);
    };
    if (onWorker) {
      std::atomic<bool> done{false};
      std::thread worker([&] { report(), done = true; });
      EXPECT_TRUE(waitUntil([&] { return done.load(); }, 60));
      worker.join();
    } else {
      report();
    }
    EXPECT_EQ(controller.asyncJobs(), 0);
    EXPECT_EQ(log.count("Async jobs timed out"), 0u);
    return {log.text(), relay_->messages()};
  }

  static void expectEnvelope(const RelayMessage* m, int port, const std::vector<std::string>& to) {
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->port, port);
    EXPECT_EQ(m->from, kSender);
    EXPECT_EQ(m->options, "BODY=8BITMIME");
    EXPECT_EQ(m->to, to);
  }

  std::string folder;
  static inline std::unique_ptr<SMTPRelay> relay_;
  static inline std::unique_ptr<PrivateSessionBus> bus_;
  static inline std::string setupError_, carrierTable_;

 private:
  std::vector<std::unique_ptr<AppController>> controllers_;
};

TEST_F(MailNotifications, EndedRenderSendsTheEmailAndTheTextMessageWithTheirTexts) {
  struct Case {
    const char* name;
    std::function<MVPlistValue()> render;
    bool failed, onWorker;
    Change change;
    const char* host;
    const char* subject;
    const char* emailBody;  // "%F" stands for the watch folder
    const char* textBody = nullptr;  // no text message
    const char* textTo = kTextAddress;
    bool carrierTable = true;
    std::size_t emailRelayPort = 1;  // the relay's second port is the settings' one, its first is 25
  };
  const char* finishedMail = "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Studio\" finished rendering.";
  const char* finishedText = "The file \"clip.mov\" on computer \"Studio\" finished rendering.";
  const char* failedMail = "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Studio\" failed to render.";
  auto clip = [this] { return watchRender("clip.mov"); };
  auto carrier = [](const char* name) -> Change { return [=](Settings& s) { s["selectedTextCarrier"] = name; }; };
  auto port = [](int number) -> Change { return [=](Settings& s) { s["emailPort"] = number; }; };
  const Case cases[] = {
      {"finished, reported on a worker", clip, false, true, {}, "studio", "clip.mov Finished", finishedMail, finishedText},
      {"failed", clip, true, false, {}, "studio", "clip.mov Failed", failedMail,
       "The file \"clip.mov\" on computer \"Studio\" failed to render."},
      // A failure asks for "txtMessageNumber", not the stored number...
      {"failed, txtMessageNumber empty", clip, true, false, [](Settings& s) { s["txtMessageNumber"] = ""; }, "studio",
       "clip.mov Failed", failedMail, nullptr},
      // ...but the address still comes from the stored number.
      {"failed, no stored number", clip, true, false, [](Settings& s) { s.erase("txtMessagePhoneNumber"); }, "studio",
       "clip.mov Failed", failedMail, nullptr},
      // The batch name is quoted as Compressor reported it, still escaped.
      {"Compressor batch failed",
       [] { return dictionary({{"type", "qmaster"}, {"batchid", "B-7"}, {"name", "Promo%20Cut"}, {"status", "Failed"}}); },
       true, false, {}, "studio", "Promo%20Cut Batch Failed",
       "The Compressor batch \"Promo%20Cut\" on computer \"Studio\" failed to render.",
       "The Compressor batch \"Promo%20Cut\" on computer \"Studio\" failed."},
      // The host name is capitalised word by word, a hyphen starting a word.
      {"host EDIT-bay", clip, true, false, {}, "EDIT-bay", "clip.mov Failed",
       "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Edit-Bay\" failed to render.",
       "The file \"clip.mov\" on computer \"Edit-Bay\" failed to render."},
      // The carrier decides the gateway ("att" when none is chosen); without one, or without the table, no text
      // message and nothing said about it.
      {"another carrier", clip, false, false, carrier("tmobile"), "studio", "clip.mov Finished", finishedMail,
       finishedText, "15550100000@tmomail.example"},
      {"carrier not in the table", clip, false, false, carrier("verizon"), "studio", "clip.mov Finished", finishedMail},
      {"carrier without a gateway", clip, false, false, carrier("nodomain"), "studio", "clip.mov Finished", finishedMail},
      {"no carrier table", clip, false, false, {}, "studio", "clip.mov Finished", finishedMail, nullptr, nullptr, false},
      // Without a port of its own, or with one where nothing listens (the client leaves the refusal to its 8 s
      // connect timer), the e-mail takes the default ports too.
      {"emailPort 0", clip, false, false, port(0), "studio", "clip.mov Finished", finishedMail, finishedText,
       kTextAddress, true, 0},
      {"emailPort missing", clip, false, false, [](Settings& s) { s.erase("emailPort"); }, "studio",
       "clip.mov Finished", finishedMail, finishedText, kTextAddress, true, 0},
      {"emailPort closed", clip, false, false, port(2525), "studio", "clip.mov Finished", finishedMail, finishedText,
       kTextAddress, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    setHostName(c.host);
    EnvOverride resources("QUILLON_RESOURCES", c.carrierTable ? carrierTable_ : makeTempDir("no-resources"));
    const Sent sent = notify(mailSettings(c.change), c.render(), c.failed, c.onWorker);
    const std::size_t expected = c.textBody ? 2 : 1;
    EXPECT_EQ(sent.logged("Email sent successfully"), expected) << sent.log;
    EXPECT_EQ(sent.logged("Email failed"), 0u) << sent.log;
    EXPECT_EQ(sent.logged("Render complete"), c.failed ? 0u : 1u) << sent.log;
    ASSERT_EQ(sent.all.size(), expected);

    // The e-mail goes to the port of the settings; the text message ignores
    // it and takes the first default port.
    expectEnvelope(sent.to("editor@example.com"), relay_->port(c.emailRelayPort), kRecipients);
    std::string body = c.emailBody;
    if (auto at = body.find("%F"); at != std::string::npos) body.replace(at, 2, folder);
    EXPECT_EQ(sent.to("editor@example.com")->header("Subject"), c.subject);
    EXPECT_EQ(sent.to("editor@example.com")->body(), body);
    if (c.textBody) {
      expectEnvelope(sent.to(c.textTo), 25, {c.textTo});
      EXPECT_EQ(sent.to(c.textTo)->header("Subject"), c.subject);
      EXPECT_EQ(sent.to(c.textTo)->body(), c.textBody);
    }
  }
}

TEST_F(MailNotifications, FailuresAreLoggedAndTheActionsAfterTheMailStillRun) {
  struct Case {
    const char* name;
    Change change;
    std::size_t failures;  // of the e-mail and the text message; with one, the text message went out
    const char* logged;
  };
  const char* refused = "Email failed to send - error(535): Invalid username or password.";
  const Case cases[] = {
      {"the keychain holds another password", [](Settings& s) { s["emailFromAddress"] = "stale@example.com"; }, 2, refused},
      // No item: the session goes on without a password, and the relay refuses.
      {"no keychain item", [](Settings& s) { s["emailFromAddress"] = "nobody@example.com"; }, 2, refused},
      {"empty server", [](Settings& s) { s["emailServer"] = ""; }, 2, "Email failed to send - error("},
      // The text message has its own recipient: it still goes out.
      {"empty recipient", [](Settings& s) { s["emailToAddress"] = ""; }, 1, "Email failed to send - error("},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Sent sent = notify(mailSettings(c.change), watchRender("clip.mov"));
    EXPECT_EQ(sent.logged(c.logged), c.failures) << sent.log;
    const bool textDelivered = c.failures == 1;
    EXPECT_EQ(sent.logged("Email sent successfully"), textDelivered ? 1u : 0u) << sent.log;
    EXPECT_EQ(sent.logged("Render complete"), 1u);
    ASSERT_EQ(sent.all.size(), textDelivered ? 1u : 0u);
    if (textDelivered) {
      EXPECT_EQ(sent.all[0].to, std::vector<std::string>{kTextAddress});
    }
  }
  EXPECT_EQ(notify(mailSettings(), watchRender("after.mov")).all.size(), 2u) << "the agent still sends afterwards";
}

}  // namespace
