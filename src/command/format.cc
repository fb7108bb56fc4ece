// Requests from printf-like formats. hiredis builds each argument in its own
// growing string and prints every number through vsnprintf(), which costs a
// pipelined write nine tenths of its instructions; here the arguments are
// pieces pointing at the format and at the caller's strings, measured once
// and copied once into the output buffer. Formats outside the common subset
// go to hiredis, so that its rules (flags, widths, floating point, the
// format errors) stay its own.

// First, before any header reaches it through hiredis.h: hiredis's string
// buffer functions are C, and their header does not say so.
extern "C" {
#include <hiredis/sds.h>
}

#include "command/format.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tqredis::detail {

namespace {

constexpr int kMaxArgs = 16;
constexpr int kMaxPieces = 32;
// Decimal conversions per request, each at most 20 digits and a sign.
constexpr int kMaxNumbers = 16;
constexpr size_t kNumberSize = 24;

// Writes `value` in decimal so that it ends just before `end`; returns its
// first character.
char *DecimalEndingAt(char *end, unsigned long long value) {
  do {
    *--end = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  return end;
}

// A run of bytes of one argument: literal text of the format, a caller's
// string, or a converted number in Request::numbers.
struct Piece {
  const char *at;
  size_t len;
};

// A request taken apart. Arguments are consecutive runs of pieces:
// argument i is pieces [ends[i-1], ends[i]) (from 0 for the first).
struct Request {
  Piece pieces[kMaxPieces];
  int ends[kMaxArgs];
  size_t lens[kMaxArgs];
  char numbers[kMaxNumbers][kNumberSize];
  int piece_count = 0;
  int arg_count = 0;
  int number_count = 0;
  size_t arg_len = 0;    // bytes of the argument being built
  bool touched = false;  // the argument being built exists, even if empty

  bool Add(const char *at, size_t len) {
    touched = true;
    if (len == 0) return true;
    if (piece_count == kMaxPieces || len > INT_MAX - arg_len) return false;
    pieces[piece_count++] = {at, len};
    arg_len += len;
    return true;
  }

  bool EndArg() {
    if (!touched) return true;
    if (arg_count == kMaxArgs) return false;
    ends[arg_count] = piece_count;
    lens[arg_count++] = arg_len;
    arg_len = 0;
    touched = false;
    return true;
  }

  bool AddNumber(unsigned long long magnitude, bool negative) {
    if (number_count == kMaxNumbers) return false;
    char *end = numbers[number_count++] + kNumberSize;
    char *p = DecimalEndingAt(end, magnitude);
    if (negative) *--p = '-';
    return Add(p, static_cast<size_t>(end - p));
  }

  bool AddSigned(long long value) {
    const unsigned long long magnitude =
        value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                  : static_cast<unsigned long long>(value);
    return AddNumber(magnitude, value < 0);
  }
};

// Digits of `value` in decimal.
size_t DecimalWidth(size_t value) {
  size_t width = 1;
  while (value >= 10) {
    value /= 10;
    ++width;
  }
  return width;
}

// Writes `value` in decimal at `p`; returns the end.
char *PutDecimal(char *p, size_t value) {
  char *end = p + DecimalWidth(value);
  DecimalEndingAt(end, value);
  return end;
}

// Takes the conversion at `c` (just after its '%') and its argument from
// `ap`; returns the character after the conversion, or NULL when the
// conversion is not one of the fast path's.
const char *Convert(Request &request, const char *c, va_list *ap) {
  // Integer size: 0 int, 1 long, 2 long long.
  int size = 0;
  if (c[0] == 'l') size = c[1] == 'l' ? 2 : 1;
  const char conversion = c[size];
  // A size modifier goes with the decimal conversions only.
  if (size != 0 && conversion != 'd' && conversion != 'i' && conversion != 'u')
    return nullptr;
  bool ok = false;
  switch (conversion) {
    case 's': {
      const char *text = va_arg(*ap, const char *);
      if (text == nullptr) return nullptr;  // hiredis's own crash, not ours
      ok = request.Add(text, std::strlen(text));
      break;
    }
    case 'b': {
      const char *bytes = va_arg(*ap, const char *);
      const size_t len = va_arg(*ap, size_t);
      if (bytes == nullptr && len > 0) return nullptr;
      ok = request.Add(bytes, len);
      break;
    }
    case '%':
      ok = request.Add("%", 1);
      break;
    case 'd':
    case 'i':
      ok = size == 0   ? request.AddSigned(va_arg(*ap, int))
           : size == 1 ? request.AddSigned(va_arg(*ap, long))
                       : request.AddSigned(va_arg(*ap, long long));
      break;
    case 'u':
      ok = request.AddNumber(size == 0   ? va_arg(*ap, unsigned int)
                             : size == 1 ? va_arg(*ap, unsigned long)
                                         : va_arg(*ap, unsigned long long),
                             false);
      break;
    default:
      return nullptr;
  }
  return ok ? c + size + 1 : nullptr;
}

// Splits `format` into arguments as hiredis does: a space ends a started
// argument, a '%' that ends the format is literal, and a conversion starts
// an argument even when it adds nothing.
bool Parse(Request &request, const char *format, va_list *ap) {
  const char *c = format;
  while (*c != '\0') {
    if (*c == ' ') {
      if (!request.EndArg()) return false;
      ++c;
    } else if (*c == '%' && c[1] != '\0') {
      c = Convert(request, c + 1, ap);
      if (c == nullptr) return false;
    } else {
      const char *start = c++;
      while (*c != '\0' && *c != ' ' && !(*c == '%' && c[1] != '\0')) ++c;
      if (!request.Add(start, static_cast<size_t>(c - start))) return false;
    }
  }
  return request.EndArg();
}

}  // namespace

bool AppendFormatted(char **buf, const char *format, va_list ap) {
  Request request;
  // Taken by address below: a va_list passed on by value would not advance
  // here on ABIs where it is a plain pointer (i386, MIPS o32).
  va_list args;
  va_copy(args, ap);
  const bool parsed = Parse(request, format, &args);
  va_end(args);
  if (!parsed) return false;
  // hiredis counts a request's length in an int.
  size_t total = 1 + DecimalWidth(static_cast<size_t>(request.arg_count)) + 2;
  for (int i = 0; i < request.arg_count; ++i) {
    const size_t len = request.lens[i];
    const size_t bulk = 1 + DecimalWidth(len) + 2 + len + 2;
    if (bulk > INT_MAX - total) return false;
    total += bulk;
  }
  const sds grown = sdsMakeRoomFor(*buf, total);
  if (grown == nullptr) return false;  // hiredis reports the lack of memory
  *buf = grown;
  char *p = grown + sdslen(grown);
  *p++ = '*';
  p = PutDecimal(p, static_cast<size_t>(request.arg_count));
  *p++ = '\r';
  *p++ = '\n';
  int piece = 0;
  for (int i = 0; i < request.arg_count; ++i) {
    *p++ = '$';
    p = PutDecimal(p, request.lens[i]);
    *p++ = '\r';
    *p++ = '\n';
    for (; piece < request.ends[i]; ++piece) {
      std::memcpy(p, request.pieces[piece].at, request.pieces[piece].len);
      p += request.pieces[piece].len;
    }
    *p++ = '\r';
    *p++ = '\n';
  }
  sdsIncrLen(grown, static_cast<int>(total));
  return true;
}

int AppendCommand(redisContext *ctx, const char *format, va_list ap) {
  if (AppendFormatted(&ctx->obuf, format, ap)) return REDIS_OK;
  return redisvAppendCommand(ctx, format, ap);
}

}  // namespace tqredis::detail
