// The safety switches: explicit values, the safe=1 defaults, and the two
// exported calls that set and read them.
#include "core/options.h"

#include <pthread.h>

#include <cstring>

#include "core/lock.h"
#include "core/log.h"
#include "core/result.h"
#include "tqredis.h"

namespace tqredis::detail {

std::atomic<long> g_tqredis_options[kOptionCount] = {};

namespace {

struct OptionRange {
  long safe;
  long low;
  long high;
};
constexpr OptionRange kOptionRanges[] = {
#define TQREDIS_X(name, safe, low, high) {safe, low, high},
    TQREDIS_OPTION_LIST(TQREDIS_X)
#undef TQREDIS_X
};
static_assert(std::size(kOptionRanges) == kOptionCount);
static_assert(std::size(kOptionNames) == kOptionCount);

// What lines and calls set; guarded by g_options_mutex, which is never held
// while anything else is locked or called.
long g_explicit_value[kOptionCount] = {};
bool g_explicit[kOptionCount] = {};
pthread_mutex_t g_options_mutex = PTHREAD_MUTEX_INITIALIZER;

// REQUIRES: g_options_mutex.
void Recompute() {
  const bool safe = g_explicit[kOpt_safe] && g_explicit_value[kOpt_safe] != 0;
  for (int i = 0; i < kOptionCount; ++i) {
    long value = 0;
    if (g_explicit[i]) {
      value = g_explicit_value[i];
    } else if (safe) {
      value = kOptionRanges[i].safe;
    }
    g_tqredis_options[i].store(value, std::memory_order_relaxed);
  }
}

}  // namespace

Option OptionFromName(std::string_view name) {
  for (int i = 0; i < kOptionCount; ++i)
    if (kOptionNames[i] == name) return static_cast<Option>(i);
  return kOptionCount;
}

bool SetOption(Option option, long value) {
  if (option < 0 || option >= kOptionCount) return false;
  const OptionRange &range = kOptionRanges[option];
  if (value < range.low || value > range.high) return false;
  MutexLock lock(&g_options_mutex);
  g_explicit[option] = true;
  g_explicit_value[option] = value;
  Recompute();
  return true;
}

}  // namespace tqredis::detail

using tqredis::detail::kLogError;
using tqredis::detail::kLogWarn;
using tqredis::detail::kOptionCount;
using tqredis::detail::OptionFromName;

int tqredis_set_option(const char *name, long value) {
  const auto option = name != nullptr ? OptionFromName(name) : kOptionCount;
  if (option == kOptionCount) {
    TQ_LOG(kLogError, "unknown option[%.32s]\r\n",
           name != nullptr ? name : "(null)");
    return tqredis::detail::kFail;
  }
  if (!tqredis::detail::SetOption(option, value)) {
    TQ_LOG(kLogError, "option[%s] value=%ld out of range\r\n", name, value);
    return tqredis::detail::kFail;
  }
  TQ_LOG(kLogWarn, "option[%s] value=%ld\r\n", name, value);
  return tqredis::detail::kOk;
}

long tqredis_get_option(const char *name) {
  const auto option = name != nullptr ? OptionFromName(name) : kOptionCount;
  if (option == kOptionCount) {
    TQ_LOG(kLogError, "unknown option[%.32s]\r\n",
           name != nullptr ? name : "(null)");
    return tqredis::detail::kFail;
  }
  return tqredis::detail::OptionValue(option);
}
