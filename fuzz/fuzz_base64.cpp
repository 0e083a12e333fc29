// Base64 as the mail transport uses it: decoding text that came from the
// outside (server challenges and replies), and the encode/decode round trip
// that every attachment and credential goes through.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Base64.h"
#include "FuzzSupport.h"

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(quillon_fuzz::asText(data, size));
  (void)Base64Additions::decodeBase64ForString(text);
  (void)Base64Additions::decodeWebSafeBase64ForString(text);

  // The buffer function with the room its own estimate asks for must
  // succeed and stay inside it.
  std::vector<std::uint8_t> decoded(EstimateBas64DecodedDataSize(size));
  std::size_t decodedLength = decoded.size();
  if (!Base64DecodeData(data, size, decoded.data(), &decodedLength)) std::abort();
  if (decodedLength > decoded.size()) std::abort();

  // Whatever is encoded decodes to the same bytes, wrapped or not, in
  // either alphabet.
  const Base64Additions::Data bytes(data, data + size);
  if (Base64Additions::decodeBase64ForString(Base64Additions::encodeBase64ForData(bytes)) != bytes) std::abort();
  if (Base64Additions::decodeBase64ForString(Base64Additions::encodeWrappedBase64ForData(bytes)) != bytes)
    std::abort();
  if (Base64Additions::decodeWebSafeBase64ForString(Base64Additions::encodeWebSafeBase64ForData(bytes)) != bytes)
    std::abort();
  return 0;
}
