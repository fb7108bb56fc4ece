// tqredis-stat against the statistics the example device process really
// wrote: the example runs against the emulator, then the viewer, and what the
// viewer shows is compared with the keys read straight from redis_host.
#include <chrono>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/servers.h"
#include "support/support.h"

namespace {

using namespace std::chrono_literals;

constexpr char kProc[] = "tqexample";

std::string Base(const char *dir) {
  return std::string("/arch/mom/") + kProc + "/" + dir + "/";
}

// A stored record taken apart independently of the viewer.
struct Expected {
  bool empty = false;
  std::string date, time_of_day, db, cmd, key, elapsed, tid;
};

Expected Decode(const std::string &stored) {
  Expected e;
  if (stored == "----time=0.0-tid=0") {
    e.empty = true;
    return e;
  }
  static const std::regex kShape(
      R"(^(\d{4})(\d\d)(\d\d)_(\d\d:\d\d:\d\d)\.(\d{1,6})-([a-z_]+)-([a-z_]+)-(.*)-time=(\d+)\.(\d{1,6})-tid=(\d+)$)");
  std::smatch m;
  EXPECT_TRUE(std::regex_match(stored, m, kShape)) << stored;
  if (m.empty()) return e;
  char us[16], elapsed[32];
  std::snprintf(us, sizeof(us), "%06d", std::stoi(m[5]));
  std::snprintf(elapsed, sizeof(elapsed), "%s.%06d", m[9].str().c_str(),
                std::stoi(m[10]));
  e.date = m[1].str() + "-" + m[2].str() + "-" + m[3].str();
  e.time_of_day = m[4].str() + "." + us;
  e.db = m[6];
  e.cmd = m[7];
  e.key = m[8];
  e.elapsed = elapsed;
  e.tid = m[11];
  return e;
}

std::vector<std::string> Words(const std::string &line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

std::vector<std::string> LinesOf(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class Stat : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(emulator_.Start());
    const tqtest::ChildResult example = tqtest::RunProgram({TQEXAMPLE_PATH});
    ASSERT_EQ(example.exit_code, 0) << example.out;
    ASSERT_NE(example.out.find("tqredis-stat tqexample shows them"),
              std::string::npos)
        << example.out;
    host_ = tqtest::Direct(2);
    ASSERT_TRUE(host_);
    // The statistics are pipelined writes sent as the example ended: wait
    // for the last one, the newest outbound record.
    ASSERT_TRUE(WaitFor(Base("out") + "stats"));
    ASSERT_GT(Total("out"), 0);
    ASSERT_TRUE(WaitFor(Base("out") + std::to_string(Count("out") - 1)));
  }

  bool WaitFor(const std::string &key) {
    for (int i = 0; i < 500; ++i) {
      auto r = tqtest::Run(host_.get(), "EXISTS %s", key.c_str());
      if (r && r->type == REDIS_REPLY_INTEGER && r->integer == 1) return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }
  std::string HGet(const std::string &key, const char *field) {
    auto r = tqtest::Run(host_.get(), "HGET %s %s", key.c_str(), field);
    return r && r->type == REDIS_REPLY_STRING ? r->str : "(none)";
  }
  std::string Get(const std::string &key) {
    auto r = tqtest::Run(host_.get(), "GET %s", key.c_str());
    return r && r->type == REDIS_REPLY_STRING ? r->str : "(none)";
  }
  long Total(const char *dir) {
    return std::stol(HGet(Base(dir) + "stats", "cmd_total"));
  }
  int Count(const char *dir) {
    const long total = Total(dir);
    return total >= 32 ? 32 : static_cast<int>(total);
  }
  std::string Peak(const char *dir) {
    return HGet(Base(dir) + "stats", "cmd_peak");
  }
  std::vector<std::string> Records(const char *dir) {
    std::vector<std::string> records;
    for (int n = 0; n < Count(dir); ++n)
      records.push_back(Get(Base(dir) + std::to_string(n)));
    return records;
  }

  tqtest::DeviceEmulator emulator_;
  tqtest::ContextPtr host_;
};

// The overview's two lines of one direction, as the table lays them out
// (name column 9 wide: "tqexample" is the only process).
std::string OverviewRows(const char *name, const char *dir, long total,
                         const Expected &peak) {
  char line[256];
  if (peak.empty) {
    std::snprintf(line, sizeof(line), "%-9s  %-3s%12ld%11s%9s  -\n", name, dir,
                  total, "-", "-");
    return line;
  }
  std::snprintf(line, sizeof(line), "%-9s  %-3s%12ld%11s%9s  %s %s\n", name,
                dir, total, peak.elapsed.c_str(), peak.tid.c_str(),
                peak.date.c_str(), peak.time_of_day.c_str());
  return std::string(line) + std::string(16, ' ') + peak.db + " " + peak.cmd +
         " " + peak.key + "\n";
}

}  // namespace

TEST_F(Stat, OverviewListsTheExampleWithItsTotalsAndPeakOperations) {
  const tqtest::ChildResult viewer = tqtest::RunProgram({TQSTAT_PATH});
  ASSERT_EQ(viewer.exit_code, 0) << viewer.out;
  const Expected in_peak = Decode(Peak("in"));
  const Expected out_peak = Decode(Peak("out"));
  // The example times its operations: both peaks are real ones.
  EXPECT_FALSE(in_peak.empty);
  EXPECT_FALSE(out_peak.empty);
  EXPECT_EQ(viewer.out,
            "PROCESS    DIR       TOTAL  PEAK TOOK      TID  PEAK AT\n" +
                OverviewRows(kProc, "in", Total("in"), in_peak) +
                OverviewRows("", "out", Total("out"), out_peak));
}

TEST_F(Stat, ProcessViewShowsEveryRecordOldestFirstInAlignedColumns) {
  const tqtest::ChildResult viewer = tqtest::RunProgram({TQSTAT_PATH, kProc});
  ASSERT_EQ(viewer.exit_code, 0) << viewer.out;
  const std::vector<std::string> lines = LinesOf(viewer.out);
  size_t at = 0;
  for (const char *dir : {"in", "out"}) {
    const std::vector<std::string> records = Records(dir);
    ASSERT_FALSE(records.empty()) << dir;
    ASSERT_LT(at + 1, lines.size());
    const Expected oldest = Decode(records.front());
    EXPECT_EQ(lines[at], std::string(kProc) + " " + dir + ": " +
                             std::to_string(Total(dir)) +
                             " operations, the last " +
                             std::to_string(records.size()) +
                             " oldest first, from " + oldest.date);
    const std::string head = lines[at + 1];
    EXPECT_EQ(Words(head), (std::vector<std::string>{"#", "AT", "DB", "CMD",
                                                     "TOOK", "TID", "KEY"}));
    at += 2;
    for (size_t n = 0; n < records.size(); ++n, ++at) {
      ASSERT_LT(at, lines.size());
      const std::string &line = lines[at];
      const Expected e = Decode(records[n]);
      const std::string db = e.db.substr(6);  // shown without "redis_"
      std::vector<std::string> words = Words(line);
      EXPECT_LE(line.size(), 80u) << line;
      // Left-aligned columns start where their heading starts; a key with
      // too little room left takes the next line.
      EXPECT_EQ(line.find(db, 20), head.find("DB")) << line;
      if (words.size() == 6 && at + 1 < lines.size()) {
        ++at;
        EXPECT_EQ(lines[at], "     " + e.key);
        words.push_back(e.key);
      } else {
        EXPECT_EQ(line.rfind(e.key), head.find("KEY")) << line;
      }
      EXPECT_EQ(words,
                (std::vector<std::string>{std::to_string(n), e.time_of_day, db,
                                          e.cmd, e.elapsed, e.tid, e.key}))
          << line;
    }
    if (at < lines.size()) {
      EXPECT_EQ(lines[at], "");
      ++at;
    }
  }
  EXPECT_EQ(at, lines.size());
}

TEST_F(Stat, ExamplesOwnOperationsAreAmongTheRecordsShown) {
  const tqtest::ChildResult viewer = tqtest::RunProgram({TQSTAT_PATH, kProc});
  ASSERT_EQ(viewer.exit_code, 0);
  // The worker's change of card 2 on redis_ce_global: written (outbound)
  // and notified back (inbound), both stored and both shown.
  bool notified = false;
  bool written = false;
  const std::vector<std::string> in = Records("in");
  const std::vector<std::string> out = Records("out");
  for (const std::string &r : in) {
    const Expected e = Decode(r);
    notified |= e.db == "redis_ce_global" && e.cmd == "set" &&
                e.key == "example:card:2";
  }
  for (const std::string &r : out) {
    const Expected e = Decode(r);
    written |= e.db == "redis_ce_global" && e.cmd == "set" &&
               e.key == "example:card:2";
  }
  EXPECT_TRUE(notified);
  EXPECT_TRUE(written);
  int shown = 0;
  for (const std::string &line : LinesOf(viewer.out)) {
    const std::vector<std::string> w = Words(line);
    shown += w.size() == 7 && w[2] == "ce_global" && w[3] == "set" &&
             w[6] == "example:card:2";
  }
  EXPECT_GE(shown, 2) << viewer.out;
}

TEST_F(Stat, JsonCarriesTheSameTotalsPeaksAndRecords) {
  const tqtest::ChildResult overview =
      tqtest::RunProgram({TQSTAT_PATH, "--json"});
  ASSERT_EQ(overview.exit_code, 0);
  auto record = [](const std::string &stored) {
    const Expected e = Decode(stored);
    if (e.empty) return std::string("null");
    return "{\"time\":\"" + stored.substr(0, stored.find('-')) +
           "\",\"db\":\"" + e.db + "\",\"cmd\":\"" + e.cmd + "\",\"key\":\"" +
           e.key + "\",\"elapsed\":\"" + e.elapsed + "\",\"tid\":" + e.tid +
           "}";
  };
  auto ring = [&](const char *dir, bool with_records) {
    std::string out = "{\"total\":" + std::to_string(Total(dir)) +
                      ",\"peak\":" + record(Peak(dir));
    if (with_records) {
      out += ",\"records\":[";
      const std::vector<std::string> records = Records(dir);
      for (size_t i = 0; i < records.size(); ++i)
        out += (i ? "," : "") + record(records[i]);
      out += "]";
    }
    return out + "}";
  };
  EXPECT_EQ(overview.out, "{\"processes\":[{\"name\":\"tqexample\",\"in\":" +
                              ring("in", false) +
                              ",\"out\":" + ring("out", false) + "}]}\n");
  const tqtest::ChildResult one =
      tqtest::RunProgram({TQSTAT_PATH, "--json", kProc});
  ASSERT_EQ(one.exit_code, 0);
  EXPECT_EQ(one.out, "{\"name\":\"tqexample\",\"in\":" + ring("in", true) +
                         ",\"out\":" + ring("out", true) + "}\n");
}

TEST_F(Stat, WatchRepeatsTheViewUnderATimeStamp) {
  const tqtest::ChildResult once = tqtest::RunProgram({TQSTAT_PATH});
  const tqtest::ChildResult watched =
      tqtest::RunProgram({TQSTAT_PATH, "--watch", "1", "--count", "2"});
  ASSERT_EQ(watched.exit_code, 0);
  const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d, every 1s\n\n)");
  const std::string text = watched.out;
  std::smatch first;
  ASSERT_TRUE(std::regex_search(text, first, stamp)) << text;
  EXPECT_EQ(first.position(0), 0);
  const std::string rest = text.substr(first.length(0));
  ASSERT_EQ(rest.substr(0, once.out.size()), once.out);
  const std::string second = rest.substr(once.out.size());
  std::smatch again;
  ASSERT_TRUE(std::regex_search(second, again, stamp)) << second;
  EXPECT_EQ(again.position(0), 0);
  EXPECT_EQ(second.substr(again.length(0)), once.out);
}

TEST_F(Stat, UnknownProcessAndBadArgumentsFailWithNothingOnStdout) {
  const tqtest::ChildResult unknown =
      tqtest::RunProgram({TQSTAT_PATH, "no_such_proc"});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_EQ(unknown.out, "");
  for (const std::vector<std::string> &argv :
       {std::vector<std::string>{TQSTAT_PATH, "--watch", "0"},
        std::vector<std::string>{TQSTAT_PATH, "--count", "2"},
        std::vector<std::string>{TQSTAT_PATH, "a", "b"},
        std::vector<std::string>{TQSTAT_PATH, "--bogus"}}) {
    const tqtest::ChildResult bad = tqtest::RunProgram(argv);
    EXPECT_EQ(bad.exit_code, 2) << argv[1];
    EXPECT_EQ(bad.out, "") << argv[1];
  }
}

TEST(StatNoServer, UnreachableRedisHostIsAnErrorNotAWait) {
  // No emulator in this test's namespace: nothing listens on the sockets.
  const tqtest::ChildResult viewer = tqtest::RunProgram({TQSTAT_PATH});
  EXPECT_EQ(viewer.exit_code, 1);
  EXPECT_EQ(viewer.out, "");
}
