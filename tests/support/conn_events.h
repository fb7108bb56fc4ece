// What a host sees of its connections coming and going: the connection
// events, the data checks per database and the last value each subscription
// hook received per key. Shared by the tests of reconnecting in place.
// Every record is guarded by its own mutex: the library calls the hooks on
// whichever thread met the loss, or restored the slot, or pumps.
#ifndef TQREDIS_TESTS_SUPPORT_CONN_EVENTS_H_
#define TQREDIS_TESTS_SUPPORT_CONN_EVENTS_H_

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tqredis.h"

namespace tqtest {

struct ConnEvent {
  uint32_t db;
  uint32_t op;
  int up;
  bool operator==(const ConnEvent &o) const {
    return db == o.db && op == o.op && up == o.up;
  }
};

inline std::string ToString(const ConnEvent &e) {
  return std::string(e.db < 3 ? g_tqredis_dbstr[e.db] : "?") + "[" +
         (e.op < 3 ? g_tqredis_opstr[e.op] : "?") + "]" +
         (e.up ? " up" : " down");
}

inline std::string ToString(const std::vector<ConnEvent> &events) {
  std::string out;
  for (const ConnEvent &e : events) out += ToString(e) + "\n";
  return out;
}

// The connection events, in the order the hook received them.
class ConnEvents {
 public:
  // Room for every event a test makes, so that recording one allocates
  // nothing: the heap is compared before and after many of them.
  ConnEvents() {
    events_.reserve(8192);
    pubsub_threads_.reserve(8192);
    for (std::string &trail : trails_) trail.reserve(8192);
  }

  // Registers the hook. `lock_held`, when given, tells whether the
  // library's lock is held while the hook runs.
  void Register(std::function<bool()> lock_held = nullptr) {
    lock_held_ = std::move(lock_held);
    registered_ = tqredis_conn_hook_register(Hook, this);
  }
  int registered() const { return registered_; }

  std::vector<ConnEvent> All() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return events_;
  }
  size_t Count() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return events_.size();
  }
  // How many events of slot [op][db] with this direction.
  int Count(uint32_t db, uint32_t op, int up) const {
    std::lock_guard<std::mutex> hold(mutex_);
    int n = 0;
    for (const ConnEvent &e : events_)
      if (e.db == db && e.op == op && e.up == up) ++n;
    return n;
  }
  // Each slot's events in order, "0" for a loss and "1" for a restore, keyed
  // by "<db>[<op>]"; slots without events are absent.
  std::map<std::string, std::string> PerSlot() const {
    std::map<std::string, std::string> slots;
    for (const ConnEvent &e : All()) {
      const std::string key = std::string(g_tqredis_dbstr[e.db]) + "[" +
                              g_tqredis_opstr[e.op] + "]";
      slots[key] += e.up ? '1' : '0';
    }
    return slots;
  }
  // Database `db`'s subscription connection and data checks in the order
  // they came: "0" a loss, "1" a restore, "c" a data check (through
  // HostView::DataCheck while this recorder is the checks' sink).
  std::string PubsubTrail(uint32_t db) const {
    std::lock_guard<std::mutex> hold(mutex_);
    return trails_[db];
  }
  // The thread of each subscription connection's event, in order.
  std::vector<std::thread::id> PubsubThreads() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return pubsub_threads_;
  }
  void Checked(uint32_t db) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (db < 3) trails_[db] += 'c';
  }

  // True when a hook call broke the alternation of a slot (a restore
  // without a loss before it, or two losses in a row) or came from a thread
  // that did not hold the library's lock.
  bool Broken() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return broken_;
  }

 private:
  static void Hook(uint32_t db, uint32_t op, int up, void *arg) {
    auto *self = static_cast<ConnEvents *>(arg);
    const bool locked = !self->lock_held_ || self->lock_held_();
    std::lock_guard<std::mutex> hold(self->mutex_);
    if (!locked) self->broken_ = true;
    if (db >= 3 || op >= 3 || (up != 0 && up != 1)) {
      self->broken_ = true;
      return;
    }
    int &state = self->down_[op][db];
    if ((up == 0) != (state == 0)) self->broken_ = true;
    state = up == 0 ? 1 : 0;
    self->events_.push_back({db, op, up});
    if (op == TQREDIS_OP_PUBSUB) {
      self->trails_[db] += up ? '1' : '0';
      self->pubsub_threads_.push_back(std::this_thread::get_id());
    }
  }

  std::function<bool()> lock_held_;
  int registered_ = -1;
  mutable std::mutex mutex_;
  std::vector<ConnEvent> events_;
  std::string trails_[3];
  std::vector<std::thread::id> pubsub_threads_;
  int down_[3][3] = {};  // 1 while the slot's last event was a loss
  bool broken_ = false;
};

// Data checks per database and the last value each subscription hook saw
// per key ("(nil)" for a key that went away).
class HostView {
 public:
  static HostView &Get() {
    static HostView view;
    return view;
  }
  static int DataCheck(uint32_t db) {
    HostView &v = Get();
    ConnEvents *sink = nullptr;
    {
      std::lock_guard<std::mutex> hold(v.mutex_);
      if (db < 3) ++v.checks_[db];
      sink = v.sink_;
    }
    if (sink != nullptr) sink->Checked(db);
    return 0;
  }
  // Where data checks are also noted, in order with the connection events.
  void SetSink(ConnEvents *sink) {
    std::lock_guard<std::mutex> hold(mutex_);
    sink_ = sink;
  }
  static int OnChange(tqredis_pmsg *pmsg, void *) {
    HostView &v = Get();
    std::string value = "(nil)";
    if (pmsg->value != nullptr && pmsg->value->type == REDIS_REPLY_STRING)
      value.assign(pmsg->value->str, pmsg->value->len);
    else if (pmsg->value != nullptr && pmsg->value->type != REDIS_REPLY_NIL)
      value = "(type " + std::to_string(pmsg->value->type) + ")";
    std::lock_guard<std::mutex> hold(v.mutex_);
    v.seen_[std::to_string(pmsg->db) + ":" + pmsg->key] = value;
    ++v.notifications_;
    return 0;
  }
  int Checks(uint32_t db) const {
    std::lock_guard<std::mutex> hold(mutex_);
    return checks_[db];
  }
  // The last value the hook saw for `key` of `db`; "" when none yet.
  std::string Seen(uint32_t db, const std::string &key) const {
    std::lock_guard<std::mutex> hold(mutex_);
    const auto at = seen_.find(std::to_string(db) + ":" + key);
    return at == seen_.end() ? std::string() : at->second;
  }
  long Notifications() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return notifications_;
  }

 private:
  mutable std::mutex mutex_;
  ConnEvents *sink_ = nullptr;
  int checks_[3] = {};
  std::map<std::string, std::string> seen_;
  long notifications_ = 0;
};

// One subscription entry of `db` for `pattern`, its hook HostView's.
inline pubsub_mng WatchEntry(uint32_t db, const char *pattern) {
  pubsub_mng entry{};
  entry.key_db = db;
  std::snprintf(entry.key_pattern, sizeof(entry.key_pattern), "%s", pattern);
  entry.hook = HostView::OnChange;
  return entry;
}

// One control command to the emulator serving /tmp/redis, over its control
// socket (no child process: safe from a threaded test): the integer it
// answers, or -1 for any other answer.
inline long long EmulatorCtl(const std::vector<std::string> &args) {
  redisContext *c = redisConnectUnix("/tmp/redis/tqredis-devdb.ctl");
  long long result = -1;
  if (c != nullptr && c->err == 0) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &a : args) {
      argv.push_back(a.data());
      lens.push_back(a.size());
    }
    auto *r = static_cast<redisReply *>(redisCommandArgv(
        c, static_cast<int>(argv.size()), argv.data(), lens.data()));
    if (r != nullptr && r->type == REDIS_REPLY_INTEGER) result = r->integer;
    if (r != nullptr && r->type == REDIS_REPLY_STATUS) result = 0;
    if (r != nullptr) freeReplyObject(r);
  }
  if (c != nullptr) redisFree(c);
  return result;
}

// Calls tqredis_pubsub() until `done` holds, at most `pumps` times (each
// waits 100 ms at most when nothing arrives). Returns whether it held.
inline bool PumpUntil(const std::function<bool()> &done, int pumps = 300) {
  for (int i = 0; i < pumps; ++i) {
    if (done()) return true;
    tqredis_pubsub();
  }
  return done();
}

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_CONN_EVENTS_H_
