// Client status lines of arbitrary bytes through the status line parser. The
// first byte chooses the length passed with the text: the whole text, or a
// shorter prefix of it (the text itself always ends with a NUL).
#include <algorithm>
#include <string>

#include "fuzz/fuzz_common.h"
#include "tqredis.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tqfuzz::QuietConsole(0x1f);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const size_t len = data[0] < 0x80
                         ? text.size()
                         : std::min<size_t>(data[0] - 0x80, text.size());
  tqredis_client_status st{};
  tqredis_parse_dbstatus(text.c_str(), len, &st);
  return 0;
}
