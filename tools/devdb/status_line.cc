// Formats the device's client status line from a server client-list line.
#include "status_line.h"

#include <cstdio>

namespace devdb {

namespace {

// A whole number, as the reader of the line scans it with %d or %lld.
bool IsNumber(std::string_view text) {
  size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
  if (i == text.size()) return false;
  for (; i < text.size(); ++i)
    if (text[i] < '0' || text[i] > '9') return false;
  return true;
}

void AddNumber(std::string *line, std::string_view key, std::string_view text) {
  line->append(key);
  line->push_back('=');
  line->append(IsNumber(text) ? text : std::string_view("0"));
}

void AddFigure(std::string *line, std::string_view key, long long value) {
  char text[32];
  const int n = std::snprintf(text, sizeof text, "%lld", value);
  AddNumber(line, key, std::string_view(text, static_cast<size_t>(n)));
}

// The reader scans words with %s, which cannot match an empty word: an empty
// value (a server shows "events=" for a client with no event) would shift
// every later field, so it is written as "-".
void AddWord(std::string *line, std::string_view key, std::string_view text) {
  line->append(key);
  line->push_back('=');
  line->append(text.empty() ? std::string_view("-") : text);
}

}  // namespace

std::string_view FieldOf(std::string_view line, std::string_view key) {
  size_t pos = 0;
  while (pos < line.size()) {
    size_t end = line.find(' ', pos);
    if (end == std::string_view::npos) end = line.size();
    const std::string_view word = line.substr(pos, end - pos);
    if (word.size() > key.size() && word.substr(0, key.size()) == key &&
        word[key.size()] == '=')
      return word.substr(key.size() + 1);
    pos = end + 1;
  }
  return {};
}

std::string_view FindClientLine(std::string_view list, std::string_view name) {
  size_t pos = 0;
  while (pos < list.size()) {
    size_t end = list.find('\n', pos);
    if (end == std::string_view::npos) end = list.size();
    std::string_view line = list.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!name.empty() && FieldOf(line, "name") == name) return line;
    pos = end + 1;
  }
  return {};
}

std::string FormatStatusLine(std::string_view server_line,
                             std::string_view addr, int fd,
                             const ClientFigures &figures) {
  std::string line;
  line.reserve(400);
  AddNumber(&line, "id", FieldOf(server_line, "id"));
  line.push_back(' ');
  AddWord(&line, "addr", addr);
  line.push_back(' ');
  AddFigure(&line, "fd", fd);
  for (const char *key :
       {"name", "age", "idle", "flags", "db", "sub", "psub", "multi"}) {
    const std::string_view k(key);
    line.push_back(' ');
    const std::string_view value = FieldOf(server_line, k);
    if (k == "name" || k == "flags")
      AddWord(&line, k, value);
    else
      AddNumber(&line, k, value);
  }
  const struct {
    const char *key;
    long long value;
  } own[] = {
      {"cmd_num", figures.cmd_num},   {"cmd_per_sec", figures.cmd_per_sec},
      {"in_bytes", figures.in_bytes}, {"out_bytes", figures.out_bytes},
      {"in_bps", figures.in_bps},     {"out_bps", figures.out_bps}};
  for (const auto &figure : own) {
    line.push_back(' ');
    AddFigure(&line, figure.key, figure.value);
  }
  for (const char *key : {"qbuf", "qbuf-free", "obl", "oll", "omem"}) {
    line.push_back(' ');
    AddNumber(&line, key, FieldOf(server_line, key));
  }
  line.push_back(' ');
  AddWord(&line, "events", FieldOf(server_line, "events"));
  line.push_back(' ');
  AddWord(&line, "cmd", FieldOf(server_line, "cmd"));
  line.push_back('\n');
  return line;
}

}  // namespace devdb
