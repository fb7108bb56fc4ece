#include "record.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tqstat {
namespace {

// Fewer columns than this for a key that does not fit: it moves to a line of
// its own.
constexpr size_t kMinKeyRoom = 16;

// Reads a whole decimal number; false for anything else.
bool ParseLong(std::string_view text, long *out) {
  if (text.empty() || text.size() > 19) return false;
  const std::string s(text);
  char *end = nullptr;
  const long value = std::strtol(s.c_str(), &end, 10);
  if (end != s.c_str() + s.size()) return false;
  *out = value;
  return true;
}

std::string Printf(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
std::string Printf(const char *format, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(buf, sizeof(buf), format, ap);
  va_end(ap);
  return n < 0 ? std::string()
               : std::string(buf, std::min<size_t>(n, sizeof(buf) - 1));
}

// Cuts `text` to `width` characters, keeping its end: the end of a key names
// the thing, its start is usually a shared prefix.
std::string KeepEnd(const std::string &text, size_t width) {
  if (text.size() <= width) return text;
  if (width <= 3) return text.substr(text.size() - width);
  return "..." + text.substr(text.size() - (width - 3));
}

// "de_global", "ce_global", "host": the record table's columns are narrow,
// and every database name starts with "redis_".
std::string ShortDb(const std::string &db) {
  return db.compare(0, 6, "redis_") == 0 ? db.substr(6) : db;
}

std::string Pad(const std::string &text, size_t width) {
  return text.size() >= width ? text
                              : text + std::string(width - text.size(), ' ');
}

std::string PadLeft(const std::string &text, size_t width) {
  return text.size() >= width ? text
                              : std::string(width - text.size(), ' ') + text;
}

std::string TrimRight(std::string line) {
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

std::string Json(const std::string &text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          out += Printf("\\u%04x", c);
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string RecordJson(const Record &rec) {
  if (!rec.parsed) return "{\"raw\":" + Json(rec.raw) + "}";
  if (rec.empty()) return "null";
  return "{\"time\":" + Json(rec.time) + ",\"db\":" + Json(rec.db) +
         ",\"cmd\":" + Json(rec.cmd) + ",\"key\":" + Json(rec.key) +
         ",\"elapsed\":" + Json(Elapsed(rec)) +
         ",\"tid\":" + std::to_string(rec.tid) + "}";
}

std::string RingJson(const Ring &ring, bool with_records) {
  if (!ring.present) return "null";
  std::string out = "{\"total\":" + std::to_string(ring.total) +
                    ",\"peak\":" + RecordJson(ring.peak);
  if (with_records) {
    out += ",\"records\":[";
    for (size_t i = 0; i < ring.records.size(); ++i) {
      if (i > 0) out += ",";
      out += RecordJson(ring.records[i]);
    }
    out += "]";
  }
  return out + "}";
}

std::string ProcessJsonWith(const Process &p, bool with_records) {
  return "{\"name\":" + Json(p.name) +
         ",\"in\":" + RingJson(p.in, with_records) +
         ",\"out\":" + RingJson(p.out, with_records) + "}";
}

}  // namespace

Record ParseRecord(std::string_view text) {
  Record rec;
  rec.raw = std::string(text);
  const size_t tid_at = text.rfind("-tid=");
  if (tid_at == std::string_view::npos) return rec;
  const size_t time_at = text.rfind("-time=", tid_at);
  if (time_at == std::string_view::npos) return rec;
  const std::string_view elapsed =
      text.substr(time_at + 6, tid_at - time_at - 6);
  const size_t dot = elapsed.find('.');
  if (dot == std::string_view::npos ||
      !ParseLong(elapsed.substr(0, dot), &rec.elapsed_sec) ||
      !ParseLong(elapsed.substr(dot + 1), &rec.elapsed_usec) ||
      !ParseLong(text.substr(tid_at + 5), &rec.tid)) {
    return rec;
  }
  // Time, database and command hold no '-'; the key takes the rest.
  std::string_view head = text.substr(0, time_at);
  std::string *fields[] = {&rec.time, &rec.db, &rec.cmd};
  for (std::string *field : fields) {
    const size_t dash = head.find('-');
    if (dash == std::string_view::npos) return rec;
    *field = std::string(head.substr(0, dash));
    head.remove_prefix(dash + 1);
  }
  rec.key = std::string(head);
  rec.parsed = true;
  return rec;
}

int RecordCount(long long total) {
  if (total < 0 || total >= 32) return 32;
  return static_cast<int>(total);
}

std::string TimeOfDay(const std::string &stored) {
  int hh = 0, mm = 0, ss = 0;
  unsigned long us = 0;
  char tail = 0;
  if (stored.size() < 9 || stored[8] != '_' ||
      std::sscanf(stored.c_str() + 9, "%2d:%2d:%2d.%lu%c", &hh, &mm, &ss, &us,
                  &tail) != 4 ||
      us > 999999) {
    return stored;
  }
  return Printf("%02d:%02d:%02d.%06lu", hh, mm, ss, us);
}

std::string Date(const std::string &stored) {
  if (stored.size() < 9 || stored[8] != '_') return stored;
  return stored.substr(0, 4) + "-" + stored.substr(4, 2) + "-" +
         stored.substr(6, 2);
}

std::string Elapsed(const Record &rec) {
  return Printf("%ld.%06ld", rec.elapsed_sec, rec.elapsed_usec);
}

std::string OverviewTable(const std::vector<Process> &processes) {
  if (processes.empty())
    return "no process has written statistics under /arch/mom\n";
  size_t name_width = 7;  // "PROCESS"
  for (const Process &p : processes)
    name_width = std::max(name_width, p.name.size());
  name_width = std::min<size_t>(name_width, 15);
  std::string out =
      TrimRight(Pad("PROCESS", name_width) + "  DIR" + PadLeft("TOTAL", 12) +
                PadLeft("PEAK TOOK", 11) + PadLeft("TID", 9) + "  PEAK AT") +
      "\n";
  for (const Process &p : processes) {
    const std::pair<const char *, const Ring *> rings[] = {{"in", &p.in},
                                                           {"out", &p.out}};
    bool first = true;
    for (const auto &[dir, ring] : rings) {
      std::string line =
          Pad(first ? KeepEnd(p.name, name_width) : "", name_width) + "  " +
          Pad(dir, 3);
      first = false;
      if (!ring->present) {
        out += TrimRight(line + PadLeft("-", 12)) + "\n";
        continue;
      }
      line += PadLeft(std::to_string(ring->total), 12);
      const Record &peak = ring->peak;
      if (peak.empty()) {
        out += line + PadLeft("-", 11) + PadLeft("-", 9) + "  -\n";
        continue;
      }
      if (!peak.parsed) {
        out +=
            line + "  " + KeepEnd(peak.raw, kColumns - line.size() - 2) + "\n";
        continue;
      }
      out += line + PadLeft(Elapsed(peak), 11) +
             PadLeft(std::to_string(peak.tid), 9) + "  " + Date(peak.time) +
             " " + TimeOfDay(peak.time) + "\n";
      const std::string what =
          std::string(name_width + 7, ' ') + peak.db + " " + peak.cmd + " ";
      out += what +
             KeepEnd(peak.key,
                     kColumns > what.size() ? kColumns - what.size() : 0) +
             "\n";
    }
  }
  return out;
}

std::string ProcessTable(const Process &p) {
  std::string out;
  const std::pair<const char *, const Ring *> rings[] = {{"in", &p.in},
                                                         {"out", &p.out}};
  for (const auto &[dir, ring] : rings) {
    if (!out.empty()) out += "\n";
    if (!ring->present) {
      out += p.name + " " + dir + ": no statistics\n";
      continue;
    }
    const size_t shown = ring->records.size();
    out += p.name + " " + dir + ": " + std::to_string(ring->total) +
           " operations, ";
    if (shown == 0) {
      out += "none kept\n";
      continue;
    }
    out += "the last " + std::to_string(shown) + " oldest first";
    const Record &oldest = ring->records.front();
    out += oldest.parsed ? ", from " + Date(oldest.time) + "\n" : "\n";
    size_t db_width = 2, cmd_width = 3, tid_width = 3;
    for (const Record &r : ring->records) {
      db_width = std::max(db_width, ShortDb(r.db).size());
      cmd_width = std::max(cmd_width, r.cmd.size());
      tid_width = std::max(tid_width, std::to_string(r.tid).size());
    }
    const std::string head = PadLeft("#", 3) + "  " + Pad("AT", 15) + "  " +
                             Pad("DB", db_width) + "  " +
                             Pad("CMD", cmd_width) + "  " + PadLeft("TOOK", 8) +
                             "  " + PadLeft("TID", tid_width) + "  ";
    out += head + "KEY\n";
    for (size_t n = 0; n < shown; ++n) {
      const Record &r = ring->records[n];
      std::string line = PadLeft(std::to_string(n), 3) + "  ";
      if (!r.parsed) {
        out += line +
               KeepEnd(r.raw.empty() ? "(missing)" : r.raw,
                       kColumns - line.size()) +
               "\n";
        continue;
      }
      line += Pad(TimeOfDay(r.time), 15) + "  " + Pad(ShortDb(r.db), db_width) +
              "  " + Pad(r.cmd, cmd_width) + "  " + PadLeft(Elapsed(r), 8) +
              "  " + PadLeft(std::to_string(r.tid), tid_width) + "  ";
      // With the widest fields little room is left: the key then gets a line
      // of its own rather than a stub.
      const size_t room = kColumns > line.size() ? kColumns - line.size() : 0;
      if (r.key.size() <= room || room >= kMinKeyRoom) {
        out += TrimRight(line + KeepEnd(r.key, room)) + "\n";
      } else {
        out += TrimRight(line) + "\n" + std::string(5, ' ') +
               KeepEnd(r.key, kColumns - 5) + "\n";
      }
    }
  }
  return out;
}

std::string OverviewJson(const std::vector<Process> &processes) {
  std::string out = "{\"processes\":[";
  for (size_t i = 0; i < processes.size(); ++i) {
    if (i > 0) out += ",";
    out += ProcessJsonWith(processes[i], false);
  }
  return out + "]}\n";
}

std::string ProcessJson(const Process &process) {
  return ProcessJsonWith(process, true) + "\n";
}

}  // namespace tqstat
