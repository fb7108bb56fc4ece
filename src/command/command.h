// What the layers above use of the command path: tqredis_db_command() (the
// one entry of every command), the flushes tqredis_commit_command() and
// tqredis_commit_command_all(), and the slot choice tqredis_calc_dbop(). All
// are declared by the public header. Also the recording hook that records/
// fills in (commands are recorded with recordall=1) and the reply counts the
// statistics show with replies=1.
#ifndef TQREDIS_SRC_COMMAND_COMMAND_H_
#define TQREDIS_SRC_COMMAND_COMMAND_H_

#include <cstdint>
#include <string_view>

#include "tqredis.h"

namespace tqredis::detail {

// How a command is recorded, filled in by the records layer, which sits above
// this one. Both run with the global lock held, on the calling thread.
struct CommandRecorder {
  // A command on `db` is about to be sent: `word` is its first word and `key`
  // its first argument (empty when it has none), as sent, neither
  // NUL-terminated. Returns a token for end(), or -1 when nothing was
  // recorded.
  int (*start)(uint32_t db, std::string_view word, std::string_view key);
  // The reply of a synchronous command arrived; `token` is start()'s.
  void (*end)(int token);
};

// Installs `recorder` (static storage, or NULL for none). Called at load,
// before any command.
void SetCommandRecorder(const CommandRecorder *recorder);

// While one is alive on a thread, the commands that thread sends are not
// recorded by recordall=1: the library's own operations (the pattern walks,
// expiry, client status) record themselves, with their own key, and the
// statistics written into redis_host are not operations of the process.
class UnrecordedScope {
 public:
  UnrecordedScope();
  ~UnrecordedScope();
  UnrecordedScope(const UnrecordedScope &) = delete;
  UnrecordedScope &operator=(const UnrecordedScope &) = delete;
};

// Replies owed by connection [op][db] (read or write) and not read yet,
// counted from its connect; 0 for other ids. REQUIRES: the global lock.
uint32_t UnreadReplies(uint32_t op, uint32_t db);

// Error replies to pipelined writes on [op][db] read with replies=1, since
// load; 0 for other ids. REQUIRES: the global lock.
uint32_t ReplyErrors(uint32_t op, uint32_t db);

// Written requests on [op][db] whose replies had not come when their
// connection was lost (counted with replies=1 and reconnect=1), since load;
// 0 for other ids. REQUIRES: the global lock.
uint32_t UnconfirmedWrites(uint32_t op, uint32_t db);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_COMMAND_COMMAND_H_
