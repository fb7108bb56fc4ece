// tqredis-stat shows a process's own writes once it records every command
// (recordall=1): this test process writes, saves its statistics, and the
// viewer lists those writes.
#include <sys/syscall.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixtures.h"
#include "support/support.h"
#include "tqredis.h"

namespace {

std::vector<std::string> Words(const std::string &line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

// The viewer's lines for `proc`, after its "<proc> out: ..." heading and the
// column heading, up to the blank line or the end.
std::vector<std::string> OutRows(const std::string &shown,
                                 const std::string &proc) {
  std::vector<std::string> rows;
  std::istringstream in(shown);
  std::string line;
  bool in_out = false;
  while (std::getline(in, line)) {
    if (line.rfind(proc + " out: ", 0) == 0) {
      in_out = true;
      std::getline(in, line);  // the column heading
      continue;
    }
    if (!in_out) continue;
    if (line.empty()) break;
    rows.push_back(line);
  }
  return rows;
}

class StatOwnWrites : public tqtest::ConnectedDevice {};

}  // namespace

TEST_F(StatOwnWrites, TheViewerShowsTheProcesssOwnHsets) {
  ASSERT_EQ(tqredis_set_option("recordall", 1), 0);
  tqredis_dbg_cfg(2, 1);  // thread ids in the records
  for (const char *key : {"dev/port/1", "dev/port/2", "dev/port/3"}) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "HSET %s speed 100", key);
  }
  tqredis_db_save_log();
  // Answered after the pipelined statistics on the same connection.
  tqredis_free_reply(tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING"));

  const tqtest::ChildResult viewer =
      tqtest::RunProgram({TQSTAT_PATH, "statown_test"});
  ASSERT_EQ(viewer.exit_code, 0) << viewer.out;
  EXPECT_NE(viewer.out.find("statown_test out: 3 operations, the last 3 "
                            "oldest first, from "),
            std::string::npos)
      << viewer.out;
  const std::vector<std::string> rows = OutRows(viewer.out, "statown_test");
  ASSERT_EQ(rows.size(), 3u) << viewer.out;
  const std::string tid = std::to_string(syscall(SYS_gettid));
  for (size_t n = 0; n < rows.size(); ++n) {
    const std::vector<std::string> w = Words(rows[n]);
    ASSERT_EQ(w.size(), 7u) << rows[n];
    EXPECT_EQ(w[0], std::to_string(n));
    EXPECT_EQ(w[2], "de_global");
    EXPECT_EQ(w[3], "hset");
    EXPECT_EQ(w[4], "0.000000");  // writes are not timed
    EXPECT_EQ(w[5], tid);
    EXPECT_EQ(w[6], "dev/port/" + std::to_string(n + 1));
  }
}

TEST_F(StatOwnWrites, WithoutTheSwitchTheViewerShowsNoOwnWrite) {
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "HSET dev/port/1 speed 1");
  tqredis_db_save_log();
  tqredis_free_reply(tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING"));
  const tqtest::ChildResult viewer =
      tqtest::RunProgram({TQSTAT_PATH, "statown_test"});
  ASSERT_EQ(viewer.exit_code, 0) << viewer.out;
  EXPECT_NE(viewer.out.find("statown_test out: 0 operations"),
            std::string::npos)
      << viewer.out;
  EXPECT_EQ(viewer.out.find("hset"), std::string::npos) << viewer.out;
}
