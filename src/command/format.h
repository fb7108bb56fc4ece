// The request of a command from its printf-like format, appended to a
// connection's output buffer. Every format hiredis takes gives the same bytes
// and the same errors; the common ones are written straight into the buffer,
// without hiredis's allocation per argument and its trip through vsnprintf().
#ifndef TQREDIS_SRC_COMMAND_FORMAT_H_
#define TQREDIS_SRC_COMMAND_FORMAT_H_

#include <hiredis/hiredis.h>

#include <cstdarg>

namespace tqredis::detail {

// Appends the request that `format` and `ap` make to ctx->obuf, as
// redisvAppendCommand() does: REDIS_OK, or REDIS_ERR with ctx->err and
// ctx->errstr set ("Invalid format string", "Out of memory") and the buffer
// as it was. Consumes `ap`.
int AppendCommand(redisContext *ctx, const char *format, va_list ap);

// The fast path alone. When `format` holds only literal text, spaces, %s,
// %b, %% and the decimal conversions %d %i %u with no modifier or with l or
// ll, and its request has at most 16 arguments made of at most 32 pieces:
// appends the request to `*buf` (which it may move) and returns true.
// Otherwise returns false with `*buf` as it was. Reads the arguments from a
// copy: `ap` is left as it was, for hiredis to format when this declines.
bool AppendFormatted(char **buf, const char *format, va_list ap);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_COMMAND_FORMAT_H_
