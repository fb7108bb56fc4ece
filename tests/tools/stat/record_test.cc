// tqredis-stat's reading of stored records and its two outputs, on values in
// the exact form processes write them.
#include "record.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using tqstat::ParseRecord;

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos;
       start = nl + 1) {
    lines.push_back(text.substr(start, nl - start));
  }
  EXPECT_EQ(start, text.size()) << "text must end in a newline";
  return lines;
}

tqstat::Process Example() {
  tqstat::Process p;
  p.name = "tqexample";
  p.in.present = true;
  p.in.total = 57;
  p.in.peak = ParseRecord(
      "20240302_09:05:03.42-redis_ce_global-hset-/dev/fan-1-time=0.1250-tid="
      "4312");
  p.out.present = true;
  p.out.total = 3;
  p.out.peak = ParseRecord("----time=0.0-tid=0");
  for (const char *text :
       {"20240302_09:05:04.5-redis_host-set-/arch/x-time=0.7-tid=4313",
        "20240302_09:05:04.123456-redis_de_global-del-k-time=2.0-tid=4313",
        "garbled"}) {
    p.out.records.push_back(ParseRecord(text));
  }
  return p;
}

TEST(StatRecord, KeyKeepsItsDashesAndElapsedAndThreadAreRead) {
  const auto rec = ParseRecord(
      "20240302_09:05:03.42-redis_host-del-/a-b--c-time=3.1250-tid=77");
  ASSERT_TRUE(rec.parsed);
  EXPECT_EQ(rec.time, "20240302_09:05:03.42");
  EXPECT_EQ(rec.db, "redis_host");
  EXPECT_EQ(rec.cmd, "del");
  EXPECT_EQ(rec.key, "/a-b--c");
  EXPECT_EQ(rec.elapsed_sec, 3);
  EXPECT_EQ(rec.elapsed_usec, 1250);
  EXPECT_EQ(rec.tid, 77);
  EXPECT_EQ(tqstat::Elapsed(rec), "3.001250");
  EXPECT_FALSE(rec.empty());
}

TEST(StatRecord, EmptyPeakIsParsedAsEmpty) {
  const auto rec = ParseRecord("----time=0.0-tid=0");
  EXPECT_TRUE(rec.parsed);
  EXPECT_TRUE(rec.empty());
  EXPECT_EQ(rec.key, "");
}

TEST(StatRecord, TextsWithoutTheStoredShapeAreNotParsed) {
  for (const char *text :
       {"", "garbled", "a-b-c-d-time=1.2", "a-b-time=1.2-tid=3",
        "a-b-c-d-time=x.2-tid=3", "a-b-c-d-time=1.2-tid=3z",
        "a-b-c-d-time=12-tid=3"}) {
    const auto rec = ParseRecord(text);
    EXPECT_FALSE(rec.parsed) << text;
    EXPECT_EQ(rec.raw, text);
  }
}

TEST(StatRecord, TimesArePaddedToMicrosecondsAndDatesSpelledOut) {
  EXPECT_EQ(tqstat::TimeOfDay("20240302_09:05:03.42"), "09:05:03.000042");
  EXPECT_EQ(tqstat::TimeOfDay("20240302_23:59:59.999999"), "23:59:59.999999");
  EXPECT_EQ(tqstat::Date("20240302_09:05:03.42"), "2024-03-02");
  EXPECT_EQ(tqstat::TimeOfDay("odd"), "odd");
  EXPECT_EQ(tqstat::Date("odd"), "odd");
}

TEST(StatRecord, RecordCountIsTheRingsFillCappedAt32) {
  EXPECT_EQ(tqstat::RecordCount(0), 0);
  EXPECT_EQ(tqstat::RecordCount(5), 5);
  EXPECT_EQ(tqstat::RecordCount(32), 32);
  EXPECT_EQ(tqstat::RecordCount(1000), 32);
  EXPECT_EQ(tqstat::RecordCount(-3), 32);  // wrapped past 2^31
}

TEST(StatTable, OverviewShowsTotalsAndThePeakOperationOnTwoLines) {
  const std::string table = tqstat::OverviewTable({Example()});
  EXPECT_EQ(table,
            "PROCESS    DIR       TOTAL  PEAK TOOK      TID  PEAK AT\n"
            "tqexample  in           57   0.001250     4312  2024-03-02 "
            "09:05:03.000042\n"
            "                redis_ce_global hset /dev/fan-1\n"
            "           out           3          -        -  -\n");
}

TEST(StatTable, OverviewOfNothingSaysSo) {
  EXPECT_EQ(tqstat::OverviewTable({}),
            "no process has written statistics under /arch/mom\n");
}

TEST(StatTable, ProcessViewListsRecordsOldestFirstInAlignedColumns) {
  const std::string table = tqstat::ProcessTable(Example());
  EXPECT_EQ(table,
            "tqexample in: 57 operations, none kept\n"
            "\n"
            "tqexample out: 3 operations, the last 3 oldest first, from "
            "2024-03-02\n"
            "  #  AT               DB         CMD      TOOK   TID  KEY\n"
            "  0  09:05:04.000005  host       set  0.000007  4313  /arch/x\n"
            "  1  09:05:04.123456  de_global  del  2.000000  4313  k\n"
            "  2  garbled\n");
}

TEST(StatTable, EveryLineFitsEightyColumnsAndLongKeysKeepTheirEnd) {
  tqstat::Process p = Example();
  const std::string key = "/device/" + std::string(100, 'x') + "/the-end";
  p.in.peak =
      ParseRecord("20240302_09:05:03.42-redis_ce_global-clientlistname-" + key +
                  "-time=12.5-tid=1234567");
  p.in.records.push_back(p.in.peak);
  p.name = "fourteen_chars";
  for (const std::string &table :
       {tqstat::OverviewTable({p}), tqstat::ProcessTable(p)}) {
    bool cut = false;
    for (const std::string &line : Lines(table)) {
      EXPECT_LE(line.size(), tqstat::kColumns) << line;
      if (line.find("...") != std::string::npos) {
        cut = true;
        EXPECT_EQ(line.substr(line.size() - 8), "/the-end") << line;
      }
    }
    EXPECT_TRUE(cut) << table;
  }
}

TEST(StatJson, OverviewCarriesTotalsAndPeaksAndEscapesText) {
  tqstat::Process p = Example();
  p.name = "q\"uote\\";
  p.out.present = false;
  EXPECT_EQ(tqstat::OverviewJson({p}),
            "{\"processes\":[{\"name\":\"q\\\"uote\\\\\",\"in\":{\"total\":57,"
            "\"peak\":{\"time\":\"20240302_09:05:03.42\",\"db\":"
            "\"redis_ce_global\",\"cmd\":\"hset\",\"key\":\"/dev/fan-1\","
            "\"elapsed\":\"0.001250\",\"tid\":4312}},\"out\":null}]}\n");
}

TEST(StatJson, ProcessCarriesItsRecordsInOrderAndUnreadableOnesRaw) {
  const std::string json = tqstat::ProcessJson(Example());
  EXPECT_EQ(
      json,
      "{\"name\":\"tqexample\",\"in\":{\"total\":57,\"peak\":{\"time\":"
      "\"20240302_09:05:03.42\",\"db\":\"redis_ce_global\",\"cmd\":"
      "\"hset\",\"key\":\"/dev/fan-1\",\"elapsed\":\"0.001250\",\"tid\":"
      "4312},\"records\":[]},\"out\":{\"total\":3,\"peak\":null,"
      "\"records\":[{\"time\":\"20240302_09:05:04.5\",\"db\":"
      "\"redis_host\",\"cmd\":\"set\",\"key\":\"/arch/x\",\"elapsed\":"
      "\"0.000007\",\"tid\":4313},{\"time\":\"20240302_09:05:04.123456\","
      "\"db\":\"redis_de_global\",\"cmd\":\"del\",\"key\":\"k\","
      "\"elapsed\":\"2.000000\",\"tid\":4313},{\"raw\":\"garbled\"}]}}\n");
}

}  // namespace
