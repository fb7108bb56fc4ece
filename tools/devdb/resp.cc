// RESP framing over hiredis's reader, and the emulator's own reply encoders.
#include "resp.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace devdb {

namespace {
// Compacting the front of the buffer moves the rest: do it only once the
// dead front outweighs what is left, so pipelined input stays linear.
constexpr size_t kCompactAt = 64 * 1024;
}  // namespace

FrameReader::FrameReader() : reader_(redisReaderCreate()) {}

FrameReader::~FrameReader() {
  if (reader_ != nullptr) redisReaderFree(reader_);
}

bool FrameReader::Feed(const char *data, size_t len) {
  if (reader_ == nullptr) return false;
  buf_.append(data, len);
  return redisReaderFeed(reader_, data, len) == REDIS_OK;
}

FrameReader::Result FrameReader::Next(ReplyPtr *reply, std::string_view *raw) {
  if (reader_ == nullptr) return kError;
  if (start_ >= kCompactAt && start_ * 2 >= buf_.size()) {
    buf_.erase(0, start_);
    consumed_ -= start_;
    start_ = 0;
  }
  // The reader trims its own buffer now and then, but always by the same
  // amount at both ends, so the unread length tells how far it got.
  const size_t before = reader_->len - reader_->pos;
  void *parsed = nullptr;
  const int rc = redisReaderGetReply(reader_, &parsed);
  consumed_ += before - (reader_->len - reader_->pos);
  if (rc != REDIS_OK) return kError;
  if (parsed == nullptr) return kNeedMore;
  reply->reset(static_cast<redisReply *>(parsed));
  *raw = std::string_view(buf_).substr(start_, consumed_ - start_);
  start_ = consumed_;
  return kFrame;
}

const char *FrameReader::Error() const {
  if (reader_ == nullptr) return "no memory";
  return reader_->err != 0 ? reader_->errstr : "";
}

namespace {
// As many arguments as a server accepts in one request.
constexpr long long kMaxArgs = 1024 * 1024;
constexpr size_t kMaxHeader = 32;

bool ParseLength(std::string_view digits, long long *value) {
  if (digits.empty() || digits.size() > 18) return false;
  long long v = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *value = v;
  return true;
}
}  // namespace

bool RequestGuard::Header(std::string_view line) {
  long long n = 0;
  if (state_ == kArrayHeader) {
    // "*0" and "*-1" ask nothing and are skipped like the server does.
    if (line == "*-1" || line == "*0") return true;
    if (line.empty() || line[0] != '*' || !ParseLength(line.substr(1), &n) ||
        n > kMaxArgs)
      return false;
    args_left_ = n;
    state_ = kBulkHeader;
    return true;
  }
  if (line.empty() || line[0] != '$' || !ParseLength(line.substr(1), &n) ||
      static_cast<unsigned long long>(n) > max_bulk_)
    return false;
  body_left_ = static_cast<size_t>(n) + 2;
  state_ = kBulkBody;
  return true;
}

bool RequestGuard::Check(const char *data, size_t len) {
  for (size_t i = 0; i < len;) {
    if (state_ == kBulkBody) {
      if (body_left_ > 2) {
        const size_t take = std::min(body_left_ - 2, len - i);
        body_left_ -= take;
        i += take;
        continue;
      }
      if (data[i++] != (body_left_ == 2 ? '\r' : '\n')) return false;
      if (--body_left_ == 0)
        state_ = --args_left_ > 0 ? kBulkHeader : kArrayHeader;
      continue;
    }
    const char c = data[i++];
    if (c != '\n') {
      if (line_.size() >= kMaxHeader) return false;
      line_.push_back(c);
      continue;
    }
    if (line_.empty() || line_.back() != '\r') return false;
    line_.pop_back();
    const bool ok = Header(line_);
    line_.clear();
    if (!ok) return false;
  }
  return true;
}

void AppendBulk(std::string *out, std::string_view text) {
  char head[32];
  const int n = std::snprintf(head, sizeof head, "$%zu\r\n", text.size());
  out->append(head, static_cast<size_t>(n));
  out->append(text);
  out->append("\r\n");
}

void AppendNil(std::string *out) { out->append("$-1\r\n"); }

void AppendStatus(std::string *out, std::string_view text) {
  out->push_back('+');
  out->append(text);
  out->append("\r\n");
}

void AppendError(std::string *out, std::string_view text) {
  out->push_back('-');
  out->append(text);
  out->append("\r\n");
}

void AppendInteger(std::string *out, long long value) {
  char text[32];
  const int n = std::snprintf(text, sizeof text, ":%lld\r\n", value);
  out->append(text, static_cast<size_t>(n));
}

void AppendArrayHeader(std::string *out, size_t count) {
  char head[32];
  const int n = std::snprintf(head, sizeof head, "*%zu\r\n", count);
  out->append(head, static_cast<size_t>(n));
}

void AppendReply(std::string *out, const redisReply *reply) {
  switch (reply->type) {
    case REDIS_REPLY_STRING:
      AppendBulk(out, std::string_view(reply->str, reply->len));
      break;
    case REDIS_REPLY_STATUS:
      AppendStatus(out, std::string_view(reply->str, reply->len));
      break;
    case REDIS_REPLY_ERROR:
      AppendError(out, std::string_view(reply->str, reply->len));
      break;
    case REDIS_REPLY_INTEGER:
      AppendInteger(out, reply->integer);
      break;
    case REDIS_REPLY_ARRAY:
      AppendArrayHeader(out, reply->elements);
      for (size_t i = 0; i < reply->elements; ++i)
        AppendReply(out, reply->element[i]);
      break;
    default:
      AppendNil(out);
      break;
  }
}

std::string_view ArgText(const redisReply *request, size_t i) {
  const redisReply *arg = request->element[i];
  return std::string_view(arg->str, arg->len);
}

bool ArgIs(const redisReply *request, size_t i, std::string_view lower) {
  if (i >= request->elements) return false;
  const std::string_view text = ArgText(request, i);
  if (text.size() != lower.size()) return false;
  for (size_t k = 0; k < text.size(); ++k) {
    char c = text[k];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != lower[k]) return false;
  }
  return true;
}

bool IsRequest(const redisReply *reply) {
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements == 0) return false;
  for (size_t i = 0; i < reply->elements; ++i)
    if (reply->element[i]->type != REDIS_REPLY_STRING) return false;
  return true;
}

}  // namespace devdb
