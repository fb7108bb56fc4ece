// Faults the emulator can put on a database on demand, and the helpers that
// read their arguments from control requests.
#ifndef TQREDIS_TOOLS_DEVDB_FAULTS_H_
#define TQREDIS_TOOLS_DEVDB_FAULTS_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace devdb {

inline constexpr std::string_view kDefaultPingError = "ERR devdb fault: PING";
inline constexpr std::string_view kDefaultPingStatus = "LOADING";

// The faults in force on one database. Written only by the control requests
// and by the PING answers that count the status fault down.
struct Faults {
  bool ping_error = false;
  std::string ping_error_text;
  long long ping_status_left = 0;  // PINGs still to answer with the status
  std::string ping_status_text;
  bool refusing = false;
  int64_t refuse_until_ms = 0;  // monotonic; 0 = until cleared
  // Requests arriving meanwhile are dropped unanswered: a server that has
  // stopped answering, as a client sees it.
  bool stalling = false;
  int64_t stall_until_ms = 0;  // monotonic; 0 = until cleared
};

// The reply to a PING under `faults` (counting the status fault down), or
// false when the PING goes to the server. The status fault comes first, so
// a client sees the N statuses before any error.
bool AnswerPing(Faults *faults, std::string *reply);

// Reads C-like escapes (\r \n \t \0 \\ \xHH); false on a bad escape.
bool DecodeEscapes(std::string_view text, std::string *out);

// The database of a control argument: its name or its id; "all" gives the
// range of the three. False for anything else.
bool ParseDbRange(std::string_view word, int *first, int *last);

// A non-negative decimal number that fits; false otherwise.
bool ParseCount(std::string_view word, long long *value);

// Monotonic milliseconds.
int64_t NowMs();

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_FAULTS_H_
