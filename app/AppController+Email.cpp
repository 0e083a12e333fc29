// Telling the user by e-mail, and by text message through the carrier's
// e-mail gateway, through the user's own relay.
#include <algorithm>

#include "AppController.h"
#include "MVEncryption.h"
#include "MVKeychain.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVResources.h"
#include "QuillonPreferences.h"

namespace {

std::string stringSetting(const char* key) {
  MVPlistValue value = QuillonPreferences::objectForPreferenceDictionaryKey(key);
  if (const std::string* s = value.string()) return *s;
  return value.isNil() ? std::string() : value.description();
}

// A message whose required fields are empty (no server, no sender) is a
// settings mistake, not a reason to stop the agent: log it and count the job
// as finished.
void startSending(AppController& controller, const std::shared_ptr<SKPSMTPMessage>& message, const char* operation) {
  try {
    message->send();
  } catch (const SKPSMTPAssertion& assertion) {
    MVException::logException("SKPSMTPAssertion", assertion.what(), operation);
    controller.messageFailed(message, SKPSMTPError{kSKPSMTPMessageErrorDomain, kSKPSMTPErrorConnectionFailed,
                                                   assertion.what(), "Check the mail settings."});
  }
}

std::vector<SKPSMTPPart> plainTextPart(const std::string& body) {
  return {SKPSMTPPart{{kSKPSMTPPartContentTypeKey, "text/plain"},
                      {kSKPSMTPPartMessageKey, body},
                      {kSKPSMTPPartContentTransferEncodingKey, "8bit"}}};
}

// The relay settings shared by e-mails and text messages.
void configureRelay(SKPSMTPMessage& message) {
  std::string from = stringSetting("emailFromAddress");
  message.setFromEmail(from);
  message.setRelayHost(stringSetting("emailServer"));
  message.setRequiresAuth(QuillonPreferences::isEqualToOne("emailUseAuth"));
  message.setLogin(stringSetting("emailAccountName"));
  std::string item = MVKeychain::agentItemName(from);
  std::string kind(MVKeychain::kEmailPasswordKind);
  // Without a stored password the message still goes out, with an empty
  // one: the server's refusal is what tells the user in the log.
  std::string password;
  if (MVKeychain::checkForExistenceOfKeychainItem(item, kind, from, "")) {
    if (auto stored = MVKeychain::getPasswordFromKeychainItem(item, kind, from, "")) password = *stored;
  }
  message.setPass(password);
  message.setWantsSecure(QuillonPreferences::isEqualToOne("emailUseTLS"));
}

}  // namespace

std::shared_ptr<SKPSMTPMessage> AppController::newMailMessage() {
  auto message = SKPSMTPMessage::create();
  std::lock_guard<std::mutex> lock(mutex_);
  mailInFlight_.push_back(message);
  return message;
}

void AppController::releaseMailMessage(const std::shared_ptr<SKPSMTPMessage>& message) {
  std::shared_ptr<SKPSMTPMessage> keep;  // released after the lock, outside the callback's own frame
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find(mailInFlight_.begin(), mailInFlight_.end(), message);
  if (it != mailInFlight_.end()) {
    keep = std::move(*it);
    mailInFlight_.erase(it);
    MVRunLoop::main().performOnMainThread([keep] {}, false);
  }
}

void AppController::sendEmail(const RenderDescription& render, bool success) {
  incrementAsyncJobs();
  auto message = newMailMessage();
  configureRelay(*message);
  message->setToEmail(stringSetting("emailToAddress"));
  MVPlistValue port = QuillonPreferences::objectForPreferenceDictionaryKey("emailPort");
  if (!port.isNil() && port.integerValue() > 0) {
    // The user's port is tried first, unless the default list already has it.
    std::vector<int> ports = message->relayPorts();
    int wanted = static_cast<int>(port.integerValue());
    if (std::find(ports.begin(), ports.end(), wanted) == ports.end()) ports.insert(ports.begin(), wanted);
    message->setRelayPorts(ports);
  }
  message->setDelegate(this);
  Message text = messageForRender(render, success);
  message->setSubject(text.subject);
  message->setParts(plainTextPart(text.emailBody));
  startSending(*this, message, "sendEmail:success:");
}

void AppController::sendTextMessage(const RenderDescription& render, bool success) {
  // The carrier table ships with the resources; without it there is no
  // gateway to send to.
  MVPlistValue carriers = MVPropertyList::read(MVResources::resourcesDirectory() + "/carriers.plist");
  if (!carriers.isDictionary()) return;
  std::string carrier = stringSetting("selectedTextCarrier");
  if (carrier.empty()) carrier = "att";
  const std::string* domain = carriers[carrier]["domain"].string();
  MVPlistValue number = QuillonPreferences::objectForPreferenceDictionaryKey("txtMessagePhoneNumber");
  if (!domain || number.isNil()) return;

  std::vector<std::uint8_t> encrypted;
  if (const MVPlistValue::Data* data = number.data()) encrypted = *data;
  else if (const std::string* s = number.string()) encrypted.assign(s->begin(), s->end());
  auto clear = MVEncryption::AESDecryptData(encrypted, MVEncryption::kTextMessagePassphrase);
  std::string digits = stripNonNumerals(std::string(clear.begin(), clear.end()));

  incrementAsyncJobs();
  auto message = newMailMessage();
  configureRelay(*message);
  message->setToEmail(digits + "@" + *domain);
  message->setDelegate(this);
  Message text = messageForRender(render, success);
  message->setSubject(text.subject);
  message->setParts(plainTextPart(text.textBody));
  startSending(*this, message, "sendTextMessage:success:");
}

void AppController::messageSent(const std::shared_ptr<SKPSMTPMessage>& message) {
  MVLog::appendLog("Email sent successfully");
  releaseMailMessage(message);
  decrementAsyncJobs();
}

void AppController::messageFailed(const std::shared_ptr<SKPSMTPMessage>& message, const SKPSMTPError& error) {
  MVLog::appendLog("Email failed to send - error(%d): %@", error.code, error.localizedDescription);
  releaseMailMessage(message);
  decrementAsyncJobs();
}
