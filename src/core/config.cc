// The process's settings and the configuration file that sets them at load.
#include "core/config.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/options.h"
#include "tqredis.h"

uint32_t g_tqredis_dbg_level = 0;

namespace tqredis::detail {

std::atomic<uint32_t> g_tqredis_file_level{TQREDIS_LOG_LIFE};
std::atomic<uint32_t> g_tqredis_timestat{0};
std::atomic<uint32_t> g_tqredis_cmd_commit_thres{32};

namespace {

constexpr char kConfigDir[] = "/data/tqredis/";

void SetFileLevel(uint32_t value) {
  g_tqredis_file_level.store(value, std::memory_order_relaxed);
}
void SetTimeStat(uint32_t value) {
  g_tqredis_timestat.store(value, std::memory_order_relaxed);
}
void SetConsoleLevel(uint32_t value) { g_tqredis_dbg_level = value; }

// Configuration keys. The number is read at the key's length from the start
// of the line, wherever the key was found: a key is only understood at the
// start of its line, deliberately.
struct ConfigKey {
  const char *key;
  void (*set)(uint32_t value);
};
const ConfigKey kConfigKeys[] = {
    {"dbglevel=", SetConsoleLevel},
    {"filelevel=", SetFileLevel},
    {"timestat=", SetTimeStat},
};

// strtoul(text, nullptr, 0) as on the device, whose unsigned long has 32
// bits, on every ABI: a magnitude past 32 bits gives all bits set (not its
// low 32 bits), a '-' negates the magnitude modulo 2^32, no digits give 0.
uint32_t ReadNumber(const char *text) {
  while (std::isspace(static_cast<unsigned char>(*text))) ++text;
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  // strtoull would take a second sign or blanks, which strtoul refuses here.
  if (!std::isdigit(static_cast<unsigned char>(*text))) return 0;
  errno = 0;
  const unsigned long long magnitude = std::strtoull(text, nullptr, 0);
  if (errno == ERANGE || magnitude > UINT32_MAX) return UINT32_MAX;
  const uint32_t value = static_cast<uint32_t>(magnitude);
  return negative ? 0u - value : value;
}

// A switch's line: "<name>=" found in `line`, its number read at the key's
// length from the line's start, as for the other keys. A number that is
// missing or out of the switch's range is refused with a level-8 line and
// changes nothing. Returns true when the line named a switch.
bool ReadOptionLine(const char *line) {
  for (int i = 0; i < kOptionCount; ++i) {
    char key[32];
    const std::string_view name = kOptionNames[i];
    std::snprintf(key, sizeof(key), "%.*s=", static_cast<int>(name.size()),
                  name.data());
    if (std::strstr(line, key) == nullptr) continue;
    const char *text = line + std::strlen(key);
    while (std::isspace(static_cast<unsigned char>(*text))) ++text;
    const char *digits = *text == '-' || *text == '+' ? text + 1 : text;
    bool valid = std::isdigit(static_cast<unsigned char>(*digits)) != 0;
    if (valid) {
      errno = 0;
      const long long value = std::strtoll(text, nullptr, 0);
      valid = errno != ERANGE && value >= LONG_MIN && value <= LONG_MAX &&
              SetOption(static_cast<Option>(i), static_cast<long>(value));
    }
    if (!valid) {
      TQ_LOG(kLogError, "config option[%s] value invalid, ignored\r\n", key);
    }
    return true;
  }
  return false;
}

}  // namespace

void ReadConfigStream(FILE *fp) {
  char line[256] = {0};
  // A longer line is read in pieces of 254 characters, each seen as a line.
  // A NUL byte ends the line's text for the key search and the number; a
  // directory opened in place of the file fails the first read.
  while (std::fgets(line, 255, fp) != nullptr) {
    bool known = false;
    for (const ConfigKey &entry : kConfigKeys) {
      if (std::strstr(line, entry.key) == nullptr) continue;
      // The key lies within the text before the first NUL, so that text is
      // at least as long as the key: the number's index stays inside it.
      entry.set(ReadNumber(line + std::strlen(entry.key)));
      known = true;
      break;
    }
    if (!known) ReadOptionLine(line);
  }
}

void ReadConfig() {
  char path[128];
  std::snprintf(path, sizeof(path), "%s%s.dbg", kConfigDir,
                g_tqredis_proc_name);
  FILE *fp = std::fopen(path, "r");
  if (fp == nullptr) return;  // no file: the defaults stay
  ReadConfigStream(fp);
  std::fclose(fp);
}

}  // namespace tqredis::detail

void tqredis_set_cmd_commit_thres(uint32_t thres) {
  // No check: the caller's choice.
  tqredis::detail::g_tqredis_cmd_commit_thres.store(thres,
                                                    std::memory_order_relaxed);
}

int tqredis_dbg_cfg(int type, uint32_t value) {
  using namespace tqredis::detail;
  switch (type) {
    case 0:
      SetConsoleLevel(value);
      break;
    case 1:
      SetFileLevel(value);
      break;
    case 2:
      SetTimeStat(value);
      break;
    case 3:
      tqredis_set_cmd_commit_thres(value);
      break;
    default:
      break;  // unknown: nothing changes, but the request is still logged
  }
  return TQ_LOG(kLogWarn, "set type[%d] value=%d\r\n", type,
                static_cast<int>(value));
}
