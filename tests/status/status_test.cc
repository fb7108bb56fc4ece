// Parsing a client status line, without a server: every field of an exact
// line, "offline" and the empty string, lines cut short, and tokens longer
// than their fields (run under AddressSanitizer, an overrun would abort).
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "tqredis.h"

using tqtest::Logged;

namespace {

const std::string kRun(41, ' ');

// A status line as the servers write it, one blank between fields, with
// `addr` and `cmd` as given.
std::string Line(const std::string &addr = "/tmp/redis/redis_host.sock:0",
                 const std::string &cmd = "client|list") {
  return "id=17 addr=" + addr +
         " fd=9 name=proc-read age=3600 idle=2 flags=N db=0 sub=1 psub=2 "
         "multi=-1 cmd_num=8589934592 cmd_per_sec=-3 in_bytes=123456789012 "
         "out_bytes=42 in_bps=7 out_bps=8 qbuf=26 qbuf-free=20448 obl=0 oll=0 "
         "omem=18446744073709551615 events=r cmd=" +
         cmd + "\n";
}

// A record on the heap, exactly its size, filled with a pattern: a write
// past its end is caught by AddressSanitizer, an untouched field keeps the
// pattern.
struct Record {
  Record() : st(new tqredis_client_status) {
    std::memset(st.get(), 0x5a, sizeof(*st));
  }
  std::unique_ptr<tqredis_client_status> st;
};

int Parse(const std::string &text, tqredis_client_status *st) {
  return tqredis_parse_dbstatus(text.c_str(), text.size(), st);
}

}  // namespace

TEST(ParseDbstatus, ExactLineFillsEveryFieldAndLeavesOnlineAlone) {
  Record r;
  int rv = 0;
  const std::string log =
      Logged(TQREDIS_LOG_DATA, [&] { rv = Parse(Line(), r.st.get()); });
  EXPECT_EQ(rv, 1);
  EXPECT_EQ(log, "");
  const tqredis_client_status &s = *r.st;
  EXPECT_EQ(s.online, 0x5a);
  EXPECT_EQ(s.id, 17);
  EXPECT_STREQ(s.addr, "/tmp/redis/redis_host.sock:0");
  EXPECT_EQ(s.fd, 9);
  EXPECT_STREQ(s.name, "proc-read");
  EXPECT_EQ(s.age, 3600);
  EXPECT_EQ(s.idle, 2);
  EXPECT_STREQ(s.flags, "N");
  EXPECT_EQ(s.db, 0);
  EXPECT_EQ(s.sub, 1);
  EXPECT_EQ(s.psub, 2);
  EXPECT_EQ(s.multi, -1);
  EXPECT_EQ(s.cmd_num, 8589934592LL);
  EXPECT_EQ(s.cmd_per_sec, -3);
  EXPECT_EQ(s.in_bytes, 123456789012LL);
  EXPECT_EQ(s.out_bytes, 42);
  EXPECT_EQ(s.in_bps, 7);
  EXPECT_EQ(s.out_bps, 8);
  EXPECT_EQ(s.qbuf, 26u);
  EXPECT_EQ(s.qbuf_free, 20448u);
  EXPECT_EQ(s.obl, 0u);
  EXPECT_EQ(s.oll, 0u);
  EXPECT_EQ(s.omem, 18446744073709551615ULL);
  EXPECT_STREQ(s.events, "r");
  EXPECT_STREQ(s.cmd, "client|list");
}

TEST(ParseDbstatus, RunsOfBlanksMatchAnyWhiteSpaceOrNone) {
  std::string wide = Line();
  std::string tight = Line();
  for (const char *field : {" sub=", " in_bytes=", " qbuf=", " events="}) {
    wide.replace(wide.find(field), 1, kRun);
    tight.erase(tight.find(field), 1);
  }
  Record a;
  Record b;
  EXPECT_EQ(Parse(wide, a.st.get()), 1) << wide;
  EXPECT_EQ(Parse(tight, b.st.get()), 1) << tight;
  EXPECT_EQ(b.st->sub, 1);
  EXPECT_EQ(b.st->in_bytes, 123456789012LL);
  EXPECT_EQ(b.st->qbuf, 26u);
  EXPECT_STREQ(b.st->events, "r");
}

TEST(ParseDbstatus, OfflineYieldsZeroWithTheOfflineMessageAndWritesNothing) {
  Record r;
  int rv = -1;
  const std::string log =
      Logged(TQREDIS_LOG_DATA, [&] { rv = Parse("offline", r.st.get()); });
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(log, "<tqredis_parse_dbstatus>:offline\n");
  const tqredis_client_status untouched = *Record().st;
  EXPECT_EQ(std::memcmp(r.st.get(), &untouched, sizeof(untouched)), 0);
}

TEST(ParseDbstatus, EmptyStringComparesEqualToOffline) {
  Record r;
  int rv = -1;
  const std::string log =
      Logged(TQREDIS_LOG_DATA, [&] { rv = Parse("", r.st.get()); });
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(log, "<tqredis_parse_dbstatus>:offline\n");
}

TEST(ParseDbstatus, ComparisonCoversOnlyTheGivenLength) {
  Record r;
  // "off" with its length is a bounded match; "offline" followed by more
  // text is not, and fails the scan instead.
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { Parse("off", r.st.get()); }),
            "<tqredis_parse_dbstatus>:offline\n");
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { Parse("offline now", r.st.get()); }),
            "<tqredis_parse_dbstatus>:status str invalid, rv=0 offline now\n");
}

TEST(ParseDbstatus, LineEndingAfterOmemIsInvalidWithItsCount) {
  std::string line = Line();
  line.erase(line.find(" events="));
  Record r;
  int rv = -1;
  const std::string log =
      Logged(TQREDIS_LOG_DATA, [&] { rv = Parse(line, r.st.get()); });
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(
      log, "<tqredis_parse_dbstatus>:status str invalid, rv=22 " + line + "\n");
  // Figures scanned before the end keep their new values.
  EXPECT_EQ(r.st->omem, 18446744073709551615ULL);
  EXPECT_EQ(r.st->online, 0x5a);
}

TEST(ParseDbstatus, GarbageIsInvalidWithCountZero) {
  Record r;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { Parse("hello", r.st.get()); }),
            "<tqredis_parse_dbstatus>:status str invalid, rv=0 hello\n");
}

TEST(ParseDbstatus, OverlongTokensStopTheScanWithoutOverrunningTheirFields) {
  const std::string huge(500, 'w');
  struct Case {
    const char *field;  // the token made too long
    int count;          // conversions before the scan stops
  };
  for (const Case c : {Case{"addr=", 2}, Case{"name=", 4}, Case{"flags=", 7},
                       Case{"events=", 23}}) {
    std::string line = Line();
    const size_t at = line.find(c.field) + std::strlen(c.field);
    line.insert(at, huge);
    Record r;
    int rv = -1;
    const std::string log =
        Logged(TQREDIS_LOG_DATA, [&] { rv = Parse(line, r.st.get()); });
    EXPECT_EQ(rv, 0) << c.field;
    EXPECT_EQ(log, "<tqredis_parse_dbstatus>:status str invalid, rv=" +
                       std::to_string(c.count) + " " + line + "\n")
        << c.field;
  }
  Record r;
  Parse(Line(huge), r.st.get());
  EXPECT_EQ(std::string(r.st->addr), huge.substr(0, 63));
  EXPECT_EQ(r.st->fd, 0x5a5a5a5a);  // the field after it is untouched
}

TEST(ParseDbstatus, OverlongLastTokenIsCutAndTheLineStillCounts) {
  Record r;
  EXPECT_EQ(Parse(Line("a", std::string(300, 'c')), r.st.get()), 1);
  EXPECT_EQ(std::string(r.st->cmd), std::string(63, 'c'));
}

TEST(ParseDbstatus, NullArgumentsYieldZero) {
  Record r;
  int rv[2] = {-1, -1};
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    rv[0] = tqredis_parse_dbstatus(nullptr, 4, r.st.get());
    rv[1] = tqredis_parse_dbstatus("offline", 7, nullptr);
  });
  EXPECT_EQ(rv[0], 0);
  EXPECT_EQ(rv[1], 0);
  EXPECT_EQ(log,
            "<tqredis_parse_dbstatus>:input arguments invalid\n"
            "<tqredis_parse_dbstatus>:input arguments invalid\n");
}

// Callers fill the record in their own memory, so its layout is fixed.
TEST(ClientStatus, RecordLayoutIsTheFixedOne) {
#if defined(__x86_64__)
  EXPECT_EQ(sizeof(tqredis_client_status), 456u);
  EXPECT_EQ(offsetof(tqredis_client_status, age), 144u);
  EXPECT_EQ(offsetof(tqredis_client_status, cmd_num), 240u);
  EXPECT_EQ(offsetof(tqredis_client_status, cmd), 392u);
#elif defined(__i386__)
  EXPECT_EQ(sizeof(tqredis_client_status), 452u);
  EXPECT_EQ(offsetof(tqredis_client_status, age), 140u);
  EXPECT_EQ(offsetof(tqredis_client_status, cmd), 388u);
#else
  GTEST_SKIP() << "no layout recorded for this target";
#endif
}
