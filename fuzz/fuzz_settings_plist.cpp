// The property lists the agent reads from other programs: its settings file,
// the maker-wide switches file, the carrier table and Compressor's cluster
// settings. All of them go through MVPropertyList::parse; a damaged file must
// read as nil, never bring the agent down.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "MVEncryption.h"
#include "MVFormat.h"
#include "MVPropertyList.h"

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MVPropertyList::Format format = MVPropertyList::Format::XML;
  MVPlistValue root = MVPropertyList::parse(std::string(quillon_fuzz::asText(data, size)), &format);
  if (root.isNil()) return 0;

  quillon_fuzz::touchEveryValue(root);
  // Settings are logged whole ("Watch folders: %@").
  (void)MVFormatString("Settings: %@", root);
  for (const char* key : {"watchFolders", "notifyGrowl", "notifySound", "emailAddress", "disable-logging"})
    (void)MVFormatString("%@", root[key]);
  // The text-message number is stored encrypted; any data may stand there.
  if (const MVPlistValue::Data* number = root["txtMessagePhoneNumber"].data())
    (void)MVEncryption::AESDecryptData(*number, MVEncryption::kTextMessagePassphrase);

  // The preferences tool writes back what it read. A value that could be
  // stored must read back: otherwise the agent would lose its settings on
  // the next save.
  if (std::optional<std::string> binary = MVPropertyList::serialize(root, MVPropertyList::Format::Binary)) {
    if (MVPropertyList::parse(*binary).isNil()) std::abort();
  }
  (void)MVPropertyList::serialize(root, MVPropertyList::Format::XML);
  return 0;
}
