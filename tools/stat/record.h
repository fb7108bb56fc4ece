// What tqredis-stat reads under "/arch/mom" in redis_host, and the two ways it
// shows it: an aligned table for a person, JSON for scripts. Nothing here
// talks to a server.
#ifndef TQREDIS_TOOLS_STAT_RECORD_H_
#define TQREDIS_TOOLS_STAT_RECORD_H_

#include <string>
#include <string_view>
#include <vector>

namespace tqstat {

// One stored operation, "<time>-<db>-<cmd>-<key>-time=<s>.<us>-tid=<tid>".
// The key may itself contain '-': it is what lies between the command and the
// last "-time=".
struct Record {
  bool parsed = false;  // false: `raw` did not have the stored shape
  std::string raw;
  std::string time;  // as stored: "YYYYMMDD_hh:mm:ss.<us unpadded>"
  std::string db;
  std::string cmd;
  std::string key;
  long elapsed_sec = 0;
  long elapsed_usec = 0;
  long tid = 0;

  // The empty peak of a ring that never timed an operation (time statistics
  // off, or nothing longer than zero).
  bool empty() const { return parsed && time.empty() && db.empty(); }
};

Record ParseRecord(std::string_view text);

// One direction ("in": notifications and replayed keys, "out": writes).
struct Ring {
  bool present = false;  // its stats hash exists
  long long total = 0;   // cmd_total, as the process wrote it
  Record peak;
  std::vector<Record> records;  // oldest first; filled for one process only
};

struct Process {
  std::string name;
  Ring in;
  Ring out;
};

// How many record keys of a ring hold this process run's records: the ring
// keeps 32, and a total that wrapped past 2^31 reads negative.
int RecordCount(long long total);

// "hh:mm:ss.uuuuuu" (microseconds padded) and "YYYY-MM-DD" of a stored time;
// the stored text itself when it has another shape.
std::string TimeOfDay(const std::string &stored);
std::string Date(const std::string &stored);
// "<s>.<us padded to 6>".
std::string Elapsed(const Record &rec);

// Every process with its totals and peak operations, at most 80 columns.
std::string OverviewTable(const std::vector<Process> &processes);
// One process's records in both directions, oldest first, at most 80
// columns; keys too long for the line keep their end.
std::string ProcessTable(const Process &process);

std::string OverviewJson(const std::vector<Process> &processes);
std::string ProcessJson(const Process &process);

constexpr size_t kColumns = 80;

}  // namespace tqstat

#endif  // TQREDIS_TOOLS_STAT_RECORD_H_
