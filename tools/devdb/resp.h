// RESP framing: splits a byte stream into frames with hiredis's reader while
// keeping each frame's bytes as received, and writes replies back out.
#ifndef TQREDIS_TOOLS_DEVDB_RESP_H_
#define TQREDIS_TOOLS_DEVDB_RESP_H_

#include <hiredis/hiredis.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace devdb {

struct ReplyFree {
  void operator()(redisReply *r) const { freeReplyObject(r); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

// One direction of one connection. Frames are forwarded byte for byte, so the
// reader's parse is only used to find where each frame ends and what it says.
class FrameReader {
 public:
  enum Result { kFrame, kNeedMore, kError };

  FrameReader();
  ~FrameReader();
  FrameReader(const FrameReader &) = delete;
  FrameReader &operator=(const FrameReader &) = delete;

  // False when the reader is broken (bad input or no memory).
  bool Feed(const char *data, size_t len);
  // kFrame: `*reply` holds the frame parsed and `*raw` its bytes, valid until
  // the next call of Feed or Next. kError: the stream is not RESP; the
  // connection cannot be resynchronised.
  Result Next(ReplyPtr *reply, std::string_view *raw);
  // Bytes received that are not part of a frame returned yet.
  size_t Pending() const { return buf_.size() - start_; }
  const char *Error() const;

 private:
  redisReader *reader_;
  std::string buf_;      // the bytes from start_ on are not returned yet
  size_t start_ = 0;     // first byte of the frame being read
  size_t consumed_ = 0;  // bytes of buf_ the reader has gone past
};

// Watches a client's bytes before the reader sees them. A request is
// "*<n>\r\n" and n bulk strings "$<len>\r\n<bytes>\r\n"; the reader would
// allocate an array for a declared count at once, so an absurd count or
// length, or anything else, is refused before it gets there.
class RequestGuard {
 public:
  explicit RequestGuard(size_t max_bulk) : max_bulk_(max_bulk) {}
  // False once the stream is not requests within the limits.
  bool Check(const char *data, size_t len);

 private:
  enum State { kArrayHeader, kBulkHeader, kBulkBody };
  // A header line without its "\r\n"; false when it is not acceptable.
  bool Header(std::string_view line);

  size_t max_bulk_;
  State state_ = kArrayHeader;
  std::string line_;
  long long args_left_ = 0;
  size_t body_left_ = 0;  // bytes of the bulk still due, "\r\n" included
};

// Encoders for replies written by the emulator itself.
void AppendBulk(std::string *out, std::string_view text);
void AppendNil(std::string *out);
void AppendStatus(std::string *out, std::string_view text);
void AppendError(std::string *out, std::string_view text);
void AppendInteger(std::string *out, long long value);
void AppendArrayHeader(std::string *out, size_t count);
// The reply in RESP again; error, status and nested arrays included.
void AppendReply(std::string *out, const redisReply *reply);

// True when element `i` of an array of strings equals `lower` ignoring case.
bool ArgIs(const redisReply *request, size_t i, std::string_view lower);
std::string_view ArgText(const redisReply *request, size_t i);
// An array with at least one element, all of them bulk strings: the only
// request shape a client may send here.
bool IsRequest(const redisReply *reply);

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_RESP_H_
