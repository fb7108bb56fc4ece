// Configuration files of arbitrary bytes through the reader used at load.
#include <cstdio>

#include "core/log.h"
#include "fuzz/fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tqfuzz::QuietConsole(0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  FILE *fp = fmemopen(const_cast<uint8_t *>(data), size, "r");
  if (fp == nullptr) return 0;
  tqredis::detail::ReadConfigStream(fp);
  std::fclose(fp);
  // Whatever was read, the console stays quiet for the next input.
  g_tqredis_dbg_level = 0;
  return 0;
}
