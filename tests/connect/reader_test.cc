// Readers that build their replies from a pool of spare blocks: the replies
// they make, the blocks they reuse, and the replies that still go back to the
// heap.
#include <hiredis/hiredis.h>

#include <string>

#include <gtest/gtest.h>

#include "connect/reader.h"

using tqredis::detail::BoundReader;
using tqredis::detail::BuildsFrom;
using tqredis::detail::PoolReader;
using tqredis::detail::RecycleReply;
using tqredis::detail::ReplyPool;

namespace {

constexpr char kPmessage[] =
    "*5\r\n$8\r\npmessage\r\n$22\r\n__keyspace@0__:bench:*\r\n"
    "$22\r\n__keyspace@0__:bench:1\r\n$3\r\nset\r\n$7\r\nvalue-1\r\n";

std::string Render(const redisReply *r) {
  if (r == nullptr) return "NULL";
  switch (r->type) {
    case REDIS_REPLY_NIL:
      return "nil";
    case REDIS_REPLY_ARRAY: {
      std::string out = "[";
      for (size_t i = 0; i < r->elements; ++i)
        out += (i ? " " : "") + Render(r->element[i]);
      return out + "]";
    }
    case REDIS_REPLY_INTEGER:
      return "i" + std::to_string(r->integer);
    case REDIS_REPLY_STATUS:
      return "+" + std::string(r->str, r->len);
    case REDIS_REPLY_ERROR:
      return "-" + std::string(r->str, r->len);
    default:
      return "'" + std::string(r->str, r->len) + "'";
  }
}

// A bounded reader, as every connection has, building from `pool`.
class Pooled : public ::testing::Test {
 protected:
  void SetUp() override {
    reader_ = redisReaderCreate();
    ASSERT_NE(reader_, nullptr);
    BoundReader(reader_);
    ASSERT_TRUE(PoolReader(reader_, &pool_));
  }
  void TearDown() override {
    redisReaderFree(reader_);
    // The spares are heap blocks of the test's own pool: give them back.
    for (uint32_t i = 0; i < pool_.object_count; ++i) free(pool_.objects[i]);
    for (uint32_t i = 0; i < pool_.text_count; ++i) free(pool_.texts[i].block);
    for (uint32_t i = 0; i < pool_.vector_count; ++i)
      free(pool_.vectors[i].block);
  }
  redisReply *Parse(const std::string &resp) {
    EXPECT_EQ(redisReaderFeed(reader_, resp.data(), resp.size()), REDIS_OK);
    void *reply = nullptr;
    EXPECT_EQ(redisReaderGetReply(reader_, &reply), REDIS_OK);
    return static_cast<redisReply *>(reply);
  }
  redisReader *reader_ = nullptr;
  ReplyPool pool_{};
};

TEST_F(Pooled, ReplyReadsAsHiredisMakesIt) {
  const std::string resp =
      "*7\r\n$3\r\nabc\r\n+OK\r\n-ERR no\r\n:-42\r\n$-1\r\n*0\r\n"
      "*2\r\n$0\r\n\r\n*1\r\n:7\r\n";
  redisReader *plain = redisReaderCreate();
  ASSERT_EQ(redisReaderFeed(plain, resp.data(), resp.size()), REDIS_OK);
  void *made = nullptr;
  ASSERT_EQ(redisReaderGetReply(plain, &made), REDIS_OK);
  const std::string expected = Render(static_cast<redisReply *>(made));
  freeReplyObject(made);
  redisReaderFree(plain);
  EXPECT_EQ(expected, "['abc' +OK -ERR no i-42 nil [] ['' [i7]]]");

  redisReply *reply = Parse(resp);
  EXPECT_EQ(Render(reply), expected);
  EXPECT_EQ(reply->element[5]->element, nullptr);
  EXPECT_EQ(reply->element[0]->str[3], '\0');
  RecycleReply(&pool_, reply);
  // Again from the recycled blocks.
  reply = Parse(resp);
  EXPECT_EQ(Render(reply), expected);
  EXPECT_EQ(reply->element[4]->str, nullptr);
  EXPECT_EQ(reply->element[3]->str, nullptr);
  EXPECT_EQ(reply->element[3]->elements, 0u);
  RecycleReply(&pool_, reply);
}

TEST_F(Pooled, NextReplyOfTheSameShapeReusesEveryBlock) {
  redisReply *first = Parse(kPmessage);
  const redisReply *objects[6] = {first};
  const char *texts[5];
  for (int i = 0; i < 5; ++i) {
    objects[i + 1] = first->element[i];
    texts[i] = first->element[i]->str;
  }
  redisReply **vector = first->element;
  RecycleReply(&pool_, first);

  redisReply *second = Parse(kPmessage);
  EXPECT_EQ(second, objects[0]);
  EXPECT_EQ(second->element, vector);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(second->element[i], objects[i + 1]) << i;
    EXPECT_EQ(second->element[i]->str, texts[i]) << i;
  }
  EXPECT_EQ(Render(second),
            "['pmessage' '__keyspace@0__:bench:*' '__keyspace@0__:bench:1' "
            "'set' 'value-1']");
  RecycleReply(&pool_, second);
  EXPECT_EQ(pool_.object_count, 6u);
  EXPECT_EQ(pool_.text_count, 5u);
  EXPECT_EQ(pool_.vector_count, 1u);
}

TEST_F(Pooled, LongerTextThanTheSpareGetsABlockOfItsOwn) {
  RecycleReply(&pool_, Parse("$3\r\nabc\r\n"));
  const std::string text(100, 'x');
  redisReply *reply = Parse("$100\r\n" + text + "\r\n");
  EXPECT_EQ(std::string(reply->str, reply->len), text);
  EXPECT_EQ(reply->str[100], '\0');
  RecycleReply(&pool_, reply);
  // A short text fits in the longer block kept last.
  reply = Parse("$2\r\nab\r\n");
  EXPECT_EQ(Render(reply), "'ab'");
  RecycleReply(&pool_, reply);
}

TEST_F(Pooled, TextsAndVectorsTooLargeToKeepGoBackToTheHeap) {
  const std::string text(4000, 'y');
  redisReply *reply = Parse("$4000\r\n" + text + "\r\n");
  EXPECT_EQ(std::string(reply->str, reply->len), text);
  RecycleReply(&pool_, reply);
  EXPECT_EQ(pool_.text_count, 0u);
  EXPECT_EQ(pool_.object_count, 1u);

  std::string resp = "*100\r\n";
  for (int i = 0; i < 100; ++i) resp += ":" + std::to_string(i) + "\r\n";
  reply = Parse(resp);
  ASSERT_EQ(reply->elements, 100u);
  EXPECT_EQ(reply->element[99]->integer, 99);
  RecycleReply(&pool_, reply);
  EXPECT_EQ(pool_.vector_count, 0u);
  EXPECT_EQ(pool_.object_count, ReplyPool::kObjects);
}

TEST_F(Pooled, PooledReplyIsFreedByFreeReplyObjectLikeAnyOther) {
  RecycleReply(&pool_, Parse(kPmessage));
  freeReplyObject(Parse(kPmessage));
  freeReplyObject(Parse("*2\r\n$1\r\na\r\n*1\r\n$-1\r\n"));
  EXPECT_EQ(pool_.object_count, 0u);  // the six kept were taken, and freed
}

TEST_F(Pooled, ArrayPastTheBoundStillFailsAsOutOfMemory) {
  const std::string resp = "*1048577\r\n";
  ASSERT_EQ(redisReaderFeed(reader_, resp.data(), resp.size()), REDIS_OK);
  void *reply = nullptr;
  EXPECT_EQ(redisReaderGetReply(reader_, &reply), REDIS_ERR);
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(reader_->err, REDIS_ERR_OOM);
  EXPECT_STREQ(reader_->errstr, "Out of memory");
}

TEST_F(Pooled, HalfReadReplyIsFreedWithTheReader) {
  const std::string resp = "*3\r\n$1\r\na\r\n:1\r\n";
  ASSERT_EQ(redisReaderFeed(reader_, resp.data(), resp.size()), REDIS_OK);
  void *reply = nullptr;
  EXPECT_EQ(redisReaderGetReply(reader_, &reply), REDIS_OK);
  EXPECT_EQ(reply, nullptr);
  // TearDown frees the reader and, through it, the two elements read.
}

TEST_F(Pooled, ProtocolErrorFreesTheHalfReadReply) {
  const std::string resp = "*3\r\n$1\r\na\r\n?x\r\n";
  ASSERT_EQ(redisReaderFeed(reader_, resp.data(), resp.size()), REDIS_OK);
  void *reply = nullptr;
  EXPECT_EQ(redisReaderGetReply(reader_, &reply), REDIS_ERR);
  EXPECT_EQ(reader_->err, REDIS_ERR_PROTOCOL);
}

TEST(PoolReader, WaitsUntilNoReplyIsHalfRead) {
  redisReader *reader = redisReaderCreate();
  BoundReader(reader);
  ReplyPool pool{};
  const std::string head = "*2\r\n$1\r\na\r\n";
  ASSERT_EQ(redisReaderFeed(reader, head.data(), head.size()), REDIS_OK);
  void *reply = nullptr;
  ASSERT_EQ(redisReaderGetReply(reader, &reply), REDIS_OK);
  ASSERT_EQ(reply, nullptr);
  EXPECT_FALSE(PoolReader(reader, &pool));
  EXPECT_FALSE(BuildsFrom(reader, &pool));
  const std::string tail = ":1\r\n";
  ASSERT_EQ(redisReaderFeed(reader, tail.data(), tail.size()), REDIS_OK);
  ASSERT_EQ(redisReaderGetReply(reader, &reply), REDIS_OK);
  ASSERT_NE(reply, nullptr);
  freeReplyObject(reply);  // hiredis's own objects
  EXPECT_TRUE(PoolReader(reader, &pool));
  EXPECT_TRUE(BuildsFrom(reader, &pool));
  EXPECT_TRUE(PoolReader(reader, &pool));  // already
  ReplyPool other{};
  EXPECT_FALSE(BuildsFrom(reader, &other));
  redisReaderFree(reader);
}

TEST(PoolReader, NothingToPool) {
  ReplyPool pool{};
  EXPECT_FALSE(PoolReader(nullptr, &pool));
  EXPECT_FALSE(BuildsFrom(nullptr, &pool));
  redisReader *reader = redisReaderCreate();
  EXPECT_FALSE(PoolReader(reader, nullptr));
  redisReaderFree(reader);
  RecycleReply(&pool, nullptr);
  EXPECT_EQ(pool.object_count, 0u);
}

}  // namespace
