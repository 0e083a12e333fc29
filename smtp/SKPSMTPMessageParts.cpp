// Composition of what the dialogue writes: the envelope's recipient lines and
// the message text (headers, multipart/mixed body, end-of-data marker).
#include <clocale>
#include <ctime>
#include <locale.h>
#include <sys/random.h>

#include <cstdio>
#include <memory>
#include <random>

#include "MVFormat.h"
#include "SKPSMTPMessage.h"

namespace {

constexpr const char* kBoundaryLine = "--SKPSMTPMessage--Separator--Delimiter\r\n";
constexpr const char* kEndOfData = "\r\n.\r\n";
// The platform's text for a missing object, should a caller omit a header value.
constexpr const char* kMissing = "(null)";

std::string trimBlanks(const std::string& text) {
  std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  std::size_t last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

struct LocaleFree {
  void operator()(locale_t locale) const { freelocale(locale); }
};

// "EEE, dd MMM yyyy HH:mm:ss Z" in the user's language and time zone. The
// language comes from the environment (LC_ALL, LC_TIME, LANG) as the C library
// reads it, without touching the process-wide locale; an unknown setting falls
// back to the C locale's English names.
std::string currentDateText() {
  std::unique_ptr<std::remove_pointer_t<locale_t>, LocaleFree> locale(newlocale(LC_TIME_MASK, "", locale_t{}));
  if (!locale) locale.reset(newlocale(LC_TIME_MASK, "C", locale_t{}));
  tzset();
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[128] = {};
  std::size_t length =
      locale ? strftime_l(text, sizeof text, "%a, %d %b %Y %H:%M:%S %z", &local, locale.get())
             : std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S %z", &local);
  return std::string(text, length);
}

// A random (version 4) UUID in upper-case hex, without hyphens.
std::string newMessageIdentifier() {
  unsigned char bytes[16];
  // The kernel's generator: the identifier only has to be unique, and the
  // crypto library need not be loaded for it.
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    std::random_device device;
    for (auto& b : bytes) b = static_cast<unsigned char>(device());
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  std::string text;
  char hex[3];
  for (unsigned char b : bytes) {
    std::snprintf(hex, sizeof hex, "%02X", b);
    text += hex;
  }
  return text;
}

// The headers travel as ASCII. Characters it cannot hold are replaced the way
// the platform's lossy conversion does: accented Latin letters lose their
// accent, anything else becomes '?'.
std::string lossyASCII(const std::string& text) {
  static constexpr char kLatin1Letters[] = "AAAAAA?CEEEEIIII?NOOOOO?OUUUUY??aaaaaa?ceeeeiiii?nooooo?ouuuuy?y";
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    unsigned codePoint = ((c & 0x1Fu) << 6) | (next & 0x3Fu);
    out += (length == 2 && codePoint >= 0xC0 && codePoint <= 0xFF) ? kLatin1Letters[codePoint - 0xC0] : '?';
    i += length;
  }
  return out;
}

// Header values carry file, folder and batch names: none of them may end the
// header line or start another one.
std::string headerText(const SKPSMTPMessage& message) {
  std::string text;
  text += MVFormatString("Date: %@\r\n", currentDateText());
  text += MVFormatString("Message-id: <%@@%@>\r\n", newMessageIdentifier(),
                         SKPSMTPWithoutControls(message.relayHost()));
  text += MVFormatString("From:%@\r\n", SKPSMTPWithoutControls(message.fromEmail()));
  if (!message.toEmail().empty()) text += MVFormatString("To:%@\r\n", SKPSMTPWithoutControls(message.toEmail()));
  if (!message.ccEmail().empty()) text += MVFormatString("Cc:%@\r\n", SKPSMTPWithoutControls(message.ccEmail()));
  text += "Content-Type: multipart/mixed; boundary=SKPSMTPMessage--Separator--Delimiter\r\n";
  text += "Mime-Version: 1.0 (SKPSMTPMessage 1.0)\r\n";
  text += MVFormatString("Subject:%@\r\n\r\n", SKPSMTPWithoutControls(message.subject()));
  text += kBoundaryLine;
  return text;
}

std::string partValue(const SKPSMTPPart& part, const char* key, const char* missing = kMissing) {
  auto it = part.find(key);
  return it == part.end() ? std::string(missing) : it->second;
}

// The text as the DATA phase carries it: every line break (CR LF, a lone CR
// or a lone LF) is sent as CR LF, and a line that begins with "." gets one
// more in front, which the receiver takes away again. So no text can end the
// data early, whatever line breaks a receiver would honour.
std::string dotStuffed(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  bool lineStart = true;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\r' || c == '\n') {
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      out += "\r\n";
      lineStart = true;
      continue;
    }
    if (lineStart && c == '.') out += '.';
    out += c;
    lineStart = false;
  }
  return out;
}

// The closing boundary is the ordinary boundary line: receivers have always
// accepted this message as it is.
std::string bodyText(const SKPSMTPMessage& message) {
  std::string text;
  for (const SKPSMTPPart& part : message.parts()) {
    if (part.count(kSKPSMTPPartContentDispositionKey))
      text += MVFormatString("Content-Disposition: %@\r\n",
                             SKPSMTPWithoutControls(partValue(part, kSKPSMTPPartContentDispositionKey)));
    text += MVFormatString("Content-Type: %@\r\n", SKPSMTPWithoutControls(partValue(part, kSKPSMTPPartContentTypeKey)));
    text += MVFormatString("Content-Transfer-Encoding: %@\r\n\r\n",
                           SKPSMTPWithoutControls(partValue(part, kSKPSMTPPartContentTransferEncodingKey)));
    text += partValue(part, kSKPSMTPPartMessageKey, "");
    text += "\r\n";
    text += kBoundaryLine;
  }
  return dotStuffed(text) + kEndOfData;
}

}  // namespace

std::string SKPSMTPMessage::formatAnAddress(const std::string& address) const {
  // One address, one command line, whatever the settings hold.
  std::string trimmed = trimBlanks(SKPSMTPWithoutControls(address));
  if (address.find_first_of("<>") != std::string::npos) return MVFormatString("RCPT TO:%@\r\n", trimmed);
  return MVFormatString("RCPT TO:<%@>\r\n", trimmed);
}

std::string SKPSMTPMessage::formatAddresses(const std::string& addresses) const {
  if (addresses.empty()) return {};
  if (addresses.find_first_of(";,") == std::string::npos) return formatAnAddress(addresses);
  // Empty pieces are kept: "a;b," gives a third, empty recipient.
  std::string lines;
  std::size_t start = 0;
  while (true) {
    std::size_t separator = addresses.find_first_of(";,", start);
    lines += formatAnAddress(addresses.substr(start, separator == std::string::npos ? std::string::npos
                                                                                       : separator - start));
    if (separator == std::string::npos) break;
    start = separator + 1;
  }
  return lines;
}

bool SKPSMTPMessage::sendParts() {
  if (!outputStream_) return false;
  // Two writes: the headers as ASCII, then the body as UTF-8.
  if (CFWriteStreamWriteFully(*outputStream_, lossyASCII(headerText(*this))) < 0) return false;
  if (CFWriteStreamWriteFully(*outputStream_, bodyText(*this)) < 0) return false;
  startLongWatchdog();
  return true;
}
