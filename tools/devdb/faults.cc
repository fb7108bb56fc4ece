// Fault answers and the readers of control arguments.
#include "faults.h"

#include <time.h>

#include "resp.h"
#include "topology.h"

namespace devdb {

bool AnswerPing(Faults *faults, std::string *reply) {
  if (faults->ping_status_left > 0) {
    --faults->ping_status_left;
    AppendStatus(reply, faults->ping_status_text);
    return true;
  }
  if (faults->ping_error) {
    AppendError(reply, faults->ping_error_text);
    return true;
  }
  return false;
}

bool DecodeEscapes(std::string_view text, std::string *out) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out->push_back(text[i]);
      continue;
    }
    if (++i == text.size()) return false;
    switch (text[i]) {
      case 'r':
        out->push_back('\r');
        break;
      case 'n':
        out->push_back('\n');
        break;
      case 't':
        out->push_back('\t');
        break;
      case '0':
        out->push_back('\0');
        break;
      case '\\':
        out->push_back('\\');
        break;
      case 'x': {
        if (i + 2 >= text.size()) return false;
        int value = 0;
        for (int k = 1; k <= 2; ++k) {
          const char c = text[i + static_cast<size_t>(k)];
          value *= 16;
          if (c >= '0' && c <= '9')
            value += c - '0';
          else if (c >= 'a' && c <= 'f')
            value += c - 'a' + 10;
          else if (c >= 'A' && c <= 'F')
            value += c - 'A' + 10;
          else
            return false;
        }
        out->push_back(static_cast<char>(value));
        i += 2;
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

bool ParseDbRange(std::string_view word, int *first, int *last) {
  if (word == "all") {
    *first = 0;
    *last = kDbCount - 1;
    return true;
  }
  for (int db = 0; db < kDbCount; ++db) {
    if (word == kDbNames[db] || (word.size() == 1 && word[0] == '0' + db)) {
      *first = *last = db;
      return true;
    }
  }
  return false;
}

bool ParseCount(std::string_view word, long long *value) {
  if (word.empty() || word.size() > 15) return false;
  long long v = 0;
  for (char c : word) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *value = v;
  return true;
}

int64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace devdb
