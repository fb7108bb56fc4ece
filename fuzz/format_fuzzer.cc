// Requests from formats made of bytes, formatted by the library and by
// hiredis alone, which must agree: the same bytes, or both an error with the
// buffer left as it was. The first byte chooses the type every conversion
// takes (a C call cannot build its argument list at run time); the next ones
// are tokens of the format (literal text, spaces, conversions the fast path
// takes, conversions it leaves to hiredis, invalid ones); the rest are the
// arguments' bytes.
extern "C" {
#include <hiredis/sds.h>
}

#include <hiredis/hiredis.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "command/format.h"

namespace {

constexpr int kSlots = 20;  // arguments passed to every call

enum Kind { kStrings, kInts, kLongs, kLongLongs, kBinaries, kKinds };

// Conversions of each kind: [0] and [1] are the fast path's, the others are
// hiredis's alone (flags, widths, other bases) or invalid.
const char *const kConversions[kKinds][5] = {
    {"%s", "%s", "%ls", "%y", "%s"},
    {"%d", "%u", "%x", "%-5d", "%hd"},
    {"%ld", "%lu", "%lx", "%08li", "%l"},
    {"%lld", "%llu", "%llX", "%+lli", "%lly"},
    {"%b", "%b", "%y", "%hb", "%b"},
};

struct Input {
  const uint8_t *data;
  size_t size;
  uint8_t Next() {
    if (size == 0) return 0;
    --size;
    return *data++;
  }
};

std::string BuildFormat(Input &in, Kind kind) {
  std::string format;
  int conversions = 0;
  // Enough tokens to pass the fast path's 16 arguments and 32 pieces.
  const int tokens = in.Next() % 48;
  for (int t = 0; t < tokens && in.size > 0; ++t) {
    const uint8_t token = in.Next();
    switch (token % 8) {
      case 0:
      case 1:
      case 2: {  // literal text: any byte but '%' and NUL
        const int len = 1 + token / 8 % 6;
        for (int i = 0; i < len; ++i) {
          const char byte = static_cast<char>(in.Next());
          format += byte == '%' || byte == '\0' ? 'x' : byte;
        }
        break;
      }
      case 3:
        format += ' ';
        break;
      case 4:
        format += "%%";
        break;
      default:  // a conversion, taking one slot
        if (conversions == kSlots) break;
        ++conversions;
        format += kConversions[kind][token / 8 % 5];
        break;
    }
  }
  if (in.Next() & 1) format += '%';  // a '%' ending the format is literal
  return format;
}

// Bytes of one string argument (NUL-terminated for %s).
std::string TakeText(Input &in) {
  std::string text;
  const size_t len = in.Next() % 12;
  for (size_t i = 0; i < len; ++i) text += static_cast<char>(in.Next());
  return text;
}

// What hiredis alone makes of the format: the request, or "" on an error.
template <typename... Args>
std::string Reference(const char *format, Args... args) {
  char *cmd = nullptr;
  const int len = redisFormatCommand(&cmd, format, args...);
  std::string out = len > 0 ? std::string(cmd, len) : std::string();
  std::free(cmd);
  return out;
}

// The library's result after a pending request, or "" on an error, in
// which case the buffer must hold the pending request alone.
template <typename... Args>
std::string Ours(const char *format, Args... args) {
  static const char kPending[] = "*1\r\n$4\r\nPING\r\n";
  redisContext ctx{};
  ctx.obuf = sdsnew(kPending);
  const int rc = [&](const char *f, ...) {
    va_list ap;
    va_start(ap, f);
    const int got = tqredis::detail::AppendCommand(&ctx, f, ap);
    va_end(ap);
    return got;
  }(format, args...);
  const std::string all(ctx.obuf, sdslen(ctx.obuf));
  sdsfree(ctx.obuf);
  if (all.compare(0, sizeof(kPending) - 1, kPending) != 0) std::abort();
  if (rc != REDIS_OK) {
    if (all.size() != sizeof(kPending) - 1) std::abort();
    if (std::strcmp(ctx.errstr, "Invalid format string") != 0) std::abort();
    return std::string();
  }
  return all.substr(sizeof(kPending) - 1);
}

template <typename... Args>
void Compare(const char *format, Args... args) {
  if (Ours(format, args...) != Reference(format, args...)) std::abort();
}

#define TQ_SLOTS(a)                                                          \
  a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], \
      a[12], a[13], a[14], a[15], a[16], a[17], a[18], a[19]
#define TQ_PAIRS(p, n)                                                       \
  p[0], n[0], p[1], n[1], p[2], n[2], p[3], n[3], p[4], n[4], p[5], n[5],   \
      p[6], n[6], p[7], n[7], p[8], n[8], p[9], n[9], p[10], n[10], p[11],  \
      n[11], p[12], n[12], p[13], n[13], p[14], n[14], p[15], n[15], p[16], \
      n[16], p[17], n[17], p[18], n[18], p[19], n[19]

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Input in{data, size};
  const Kind kind = static_cast<Kind>(in.Next() % kKinds);
  const std::string format = BuildFormat(in, kind);
  const char *f = format.c_str();
  switch (kind) {
    case kStrings:
    case kBinaries: {
      std::string texts[kSlots];
      const char *ptrs[kSlots];
      size_t lens[kSlots];
      for (int i = 0; i < kSlots; ++i) {
        texts[i] = TakeText(in);
        if (kind == kStrings) texts[i] = texts[i].c_str();  // up to a NUL
        ptrs[i] = texts[i].c_str();
        lens[i] = texts[i].size();
      }
      if (kind == kStrings) {
        Compare(f, TQ_SLOTS(ptrs));
      } else {
        Compare(f, TQ_PAIRS(ptrs, lens));
      }
      break;
    }
    case kInts: {
      int values[kSlots];
      for (int &v : values) {
        v = static_cast<int>(static_cast<uint32_t>(in.Next()) << 24 |
                             in.Next() << 8 | in.Next());
      }
      Compare(f, TQ_SLOTS(values));
      break;
    }
    case kLongs:
    case kLongLongs: {
      long long values[kSlots];
      for (long long &v : values) {
        uint64_t bits = 0;
        for (int b = 0; b < 8; ++b) bits = bits << 8 | in.Next();
        v = static_cast<long long>(bits);
      }
      if (kind == kLongLongs) {
        Compare(f, TQ_SLOTS(values));
      } else {
        long narrow[kSlots];
        for (int i = 0; i < kSlots; ++i) narrow[i] = static_cast<long>(values[i]);
        Compare(f, TQ_SLOTS(narrow));
      }
      break;
    }
    default:
      break;
  }
  return 0;
}
