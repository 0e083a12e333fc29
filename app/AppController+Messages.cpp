// Subjects and bodies of the e-mail and text message for each kind of render.
#include <unistd.h>

#include <cctype>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVFormat.h"

using namespace quillon;

std::string AppController::computerName() {
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0) return "";
  // Each word capitalised and the rest lower case; anything that is not a
  // letter or digit separates words ("studio-mac" reads "Studio-Mac").
  std::string name = host;
  bool wordStart = true;
  for (char& c : name) {
    unsigned char u = static_cast<unsigned char>(c);
    if (!std::isalnum(u)) {
      wordStart = true;
      continue;
    }
    c = static_cast<char>(wordStart ? std::toupper(u) : std::tolower(u));
    wordStart = false;
  }
  return name;
}

AppController::Message AppController::messageForRender(const RenderDescription& render, bool success) {
  auto value = [&](const char* key) -> std::optional<std::string> {
    const MVPlistValue& v = render[key];
    if (v.isNil()) return std::nullopt;
    return v.string() ? *v.string() : v.description();
  };
  std::string computer = computerName();
  std::string type = value("type").value_or("");
  Message m;
  auto fill = [&](std::string subject, std::string email, std::string text) {
    m.subject = std::move(subject);
    m.emailBody = std::move(email);
    m.textBody = std::move(text);
  };

  if (type == "qmaster") {
    if (auto name = value("name"))
      fill(MVFormatString(success ? "%@ Batch Finished" : "%@ Batch Failed", *name),
           MVFormatString(success ? "The Compressor batch \"%@\" on computer \"%@\" has now finished."
                                  : "The Compressor batch \"%@\" on computer \"%@\" failed to render.",
                          *name, computer),
           MVFormatString(success ? "The Compressor batch \"%@\" on computer \"%@\" finished."
                                  : "The Compressor batch \"%@\" on computer \"%@\" failed.",
                          *name, computer));
  } else if (type == "fcpRender") {
    if (auto project = value("projectName"))
      fill(MVFormatString(success ? "%@ Render Finished" : "%@ Render Failed", *project),
           MVFormatString(success ? "The Final Cut Pro render for \"%@\" on computer \"%@\" has now finished."
                                  : "The Final Cut Pro render for \"%@\" on computer \"%@\" failed.",
                          *project, computer),
           MVFormatString(success ? "The Final Cut Pro render for \"%@\" on computer \"%@\" finished."
                                  : "The Final Cut Pro render for \"%@\" on computer \"%@\" failed.",
                          *project, computer));
  } else if (type == "avidRender") {
    fill(success ? "Avid Render Finished" : "Avid Render Failed",
         MVFormatString(success ? "The Avid render on computer \"%@\" has now finished."
                                : "The Avid render on computer \"%@\" failed.",
                        computer),
         MVFormatString(success ? "The Avid render on computer \"%@\" finished."
                                : "The Avid render on computer \"%@\" failed.",
                        computer));
  } else if (type == "ameQueue") {
    fill(success ? "AME Queue Finished" : "AME Queue Failed",
         MVFormatString(success ? "The Adobe Media Encoder queue on computer \"%@\" has now finished."
                                : "The Adobe Media Encoder queue on computer \"%@\" failed.",
                        computer),
         MVFormatString(success ? "The AME queue on computer \"%@\" finished." : "The AME queue on computer \"%@\" failed.",
                        computer));
  } else if (type == "premiereRender") {
    fill(success ? "Premiere Render Finished" : "Premiere Render Failed",
         MVFormatString(success ? "The Premiere Pro render on computer \"%@\" has now finished."
                                : "The Premiere Pro render on computer \"%@\" failed.",
                        computer),
         MVFormatString(success ? "The Premiere render on computer \"%@\" finished."
                                : "The Premiere render on computer \"%@\" failed.",
                        computer));
  } else if (auto file = value("watchFilename")) {
    std::string folder = deletingLastPathComponent(value("fullPath").value_or(""));
    fill(MVFormatString(success ? "%@ Finished" : "%@ Failed", lastPathComponent(*file)),
         MVFormatString(success ? "The file \"%@\" in the watch folder \"%@\" on computer \"%@\" finished rendering."
                                : "The file \"%@\" in the watch folder \"%@\" on computer \"%@\" failed to render.",
                        *file, folder, computer),
         MVFormatString(success ? "The file \"%@\" on computer \"%@\" finished rendering."
                                : "The file \"%@\" on computer \"%@\" failed to render.",
                        *file, computer));
    // A render of frames names the frames it lacks ("3 frames missing: 1017, 1018, 1122").
    if (auto missing = value("missingFrames")) m.emailBody += " " + *missing + ".";
  }

  // A render that names nothing to show still gets a plain message.
  if (m.emailBody.empty()) {
    m.subject = success ? "Render Complete" : "Render Failed";
    m.emailBody = m.textBody = success ? "Your render has now finished." : "Your render failed.";
  }
  return m;
}
