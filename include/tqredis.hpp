/* tqredis.hpp: C++17 conveniences over the C interface of tqredis.h.
 *
 * Conventions
 * - Header only: everything here is inline over the calls of tqredis.h, so
 *   the library exports nothing more for C++ hosts and a host links it as a
 *   C host does.
 * - Nothing here throws of its own or needs RTTI: it compiles with
 *   -fno-exceptions -fno-rtti. Only the subscription table allocates (new,
 *   std::vector): in a host built without exceptions, running out of memory
 *   there ends the process, as it would anywhere else in such a host; with
 *   exceptions, std::bad_alloc leaves the table as it was.
 * - Results keep the library's codes: 0, or -1 (failure), -2 (bad
 *   arguments), -3 (no memory), -4 (reply of the wrong type), -5 (hash field
 *   not found). The reason is logged by the library, as for the C calls.
 * - Locking is the C calls': each wrapper takes the global lock exactly when
 *   the C call it makes does. Callables handed to the library run on the
 *   thread that delivers, with the lock held (when enabled), and must not
 *   throw: the hook that calls them is noexcept, so a throw ends the process
 *   (std::terminate) instead of unwinding through the library.
 * - Text handed out (std::string_view) points into a reply or a record and
 *   lives exactly as long as that reply or record.
 */
#ifndef TQREDIS_HPP_
#define TQREDIS_HPP_

#if __cplusplus < 201703L
#error "tqredis.hpp needs C++17"
#endif

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tqredis.h"

namespace tqredis {

/* ---- Result codes ------------------------------------------------------- */

/* The library's result codes, as its C calls return them. */
enum : int {
  kOk = 0,
  kFail = -1,
  kBadArgs = -2,
  kNoMemory = -3,
  kWrongType = -4,
  kNoField = -5
};

/* A getter's outcome: a value (code() 0) or the library's negative code.
 * Plain data, cheap to copy; a text value still points into its reply. */
template <typename T>
class [[nodiscard]] Result {
 public:
  static Result Value(T value) noexcept { return Result(value, kOk); }
  /* `code` is the C getter's result; it should be negative. */
  static Result Failure(int code) noexcept { return Result(T{}, code); }

  bool ok() const noexcept { return code_ == kOk; }
  explicit operator bool() const noexcept { return ok(); }
  /* 0 with a value, else the C getter's code (-1, -2, -4 or -5). */
  int code() const noexcept { return code_; }
  /* The value; T{} (0, an empty view) when !ok(). */
  const T &value() const noexcept { return value_; }
  T value_or(T fallback) const noexcept { return ok() ? value_ : fallback; }
  /* The value, or std::nullopt, dropping the code. */
  std::optional<T> as_optional() const noexcept {
    return ok() ? std::optional<T>(value_) : std::nullopt;
  }

 private:
  Result(T value, int code) noexcept : value_(value), code_(code) {}

  T value_;
  int code_;
};

/* ---- Replies ------------------------------------------------------------ */

namespace detail {

/* The typed getters, written once for the owning Reply and the borrowed
 * ReplyView: `Self` supplies get(). Each is the C getter of its name and
 * returns its code; none frees or keeps the reply. Text read as an integer
 * goes through strtol() (base 0 lets the text choose; a negative base gives
 * -2); texts point into the reply and carry its length, embedded NULs
 * included. */
template <typename Self>
class ReplyGetters {
 public:
  /* tqredis_check_reply(): true for a usable reply (a string with text, an
   * integer, a status, or an array of usable elements). Logs why not. */
  [[nodiscard]] bool Usable() const noexcept {
    return tqredis_check_reply(raw()) == 1;
  }

  /* tqredis_get_key_reply_intval(): an integer reply's low 32 bits, or a
   * string reply's text through strtol. -2: unusable reply or negative base;
   * -4: any other type (status, array). */
  [[nodiscard]] Result<int> Int(int base = 10) const noexcept {
    int value = 0;
    const int rc = tqredis_get_key_reply_intval(raw(), &value, base);
    return Number(rc, value);
  }

  /* tqredis_get_key_reply_strval(): a string reply's text. -2: unusable
   * reply; -4: any other type (integer, status, array). */
  [[nodiscard]] Result<std::string_view> Str() const &noexcept {
    char *text = nullptr;
    int len = 0;
    const int rc = tqredis_get_key_reply_strval(raw(), &text, &len);
    return Text(rc, text, len);
  }

  /* tqredis_get_key_array_reply_intval() / _strval(): element `index` of an
   * array reply whose elements are all usable. -2: unusable reply or index
   * out of range; -4: element of another type. */
  [[nodiscard]] Result<int> IntAt(int index, int base = 10) const noexcept {
    int value = 0;
    const int rc =
        tqredis_get_key_array_reply_intval(raw(), index, &value, base);
    return Number(rc, value);
  }
  [[nodiscard]] Result<std::string_view> StrAt(int index) const &noexcept {
    char *text = nullptr;
    int len = 0;
    const int rc =
        tqredis_get_key_array_reply_strval(raw(), index, &text, &len);
    return Text(rc, text, len);
  }

  /* tqredis_get_key_reply_intval_by_field() / _strval_by_field(): the value
   * of `field` (NUL-terminated, case-sensitive) in a field/value array such
   * as an HGETALL reply. -2: unusable reply, NULL field, negative base; -4:
   * not an array; -5: no such field. */
  [[nodiscard]] Result<int> IntByField(const char *field,
                                       int base = 10) const noexcept {
    int value = 0;
    const int rc =
        tqredis_get_key_reply_intval_by_field(raw(), field, &value, base);
    return Number(rc, value);
  }
  [[nodiscard]] Result<std::string_view> StrByField(
      const char *field) const &noexcept {
    char *text = nullptr;
    int len = 0;
    const int rc =
        tqredis_get_key_reply_strval_by_field(raw(), field, &text, &len);
    return Text(rc, text, len);
  }

  /* tqredis_get_sets_size() / tqredis_get_hashes_size(): members of a set
   * reply, field/value pairs of a hash reply. std::nullopt where the C call
   * gives -1: an unusable or non-array reply, an empty one (an empty set is
   * not 0), a hash reply of odd length. */
  [[nodiscard]] std::optional<int> SetSize() const noexcept {
    return Size(tqredis_get_sets_size(raw()));
  }
  [[nodiscard]] std::optional<int> HashSize() const noexcept {
    return Size(tqredis_get_hashes_size(raw()));
  }

 private:
  redisReply *raw() const noexcept {
    return static_cast<const Self &>(*this).get();
  }
  // The outputs are read only here, after the C call wrote them: taken as
  // arguments of the same call, their order of evaluation would be open.
  static Result<int> Number(int rc, int value) noexcept {
    return rc == kOk ? Result<int>::Value(value) : Result<int>::Failure(rc);
  }
  static Result<std::string_view> Text(int rc, const char *text,
                                       int len) noexcept {
    if (rc != kOk) return Result<std::string_view>::Failure(rc);
    return Result<std::string_view>::Value(
        std::string_view(text, static_cast<std::size_t>(len)));
  }
  static std::optional<int> Size(int size) noexcept {
    return size < 0 ? std::nullopt : std::optional<int>(size);
  }
};

}  // namespace detail

/* A reply the library owns or a Reply holds, borrowed: the value of a
 * notification, an element of a reply. It never frees what it points to
 * and is valid only while that lives. An empty view (NULL) answers every
 * getter as the C getters answer NULL (-2, std::nullopt). */
class ReplyView : public detail::ReplyGetters<ReplyView> {
 public:
  constexpr ReplyView() noexcept = default;
  constexpr explicit ReplyView(redisReply *reply) noexcept : reply_(reply) {}

  redisReply *get() const noexcept { return reply_; }
  explicit operator bool() const noexcept { return reply_ != nullptr; }
  const redisReply *operator->() const noexcept { return reply_; }

 private:
  redisReply *reply_ = nullptr;
};

/* One reply the caller owns, as tqredis_db_command() returns for a read:
 * freed exactly once, with tqredis_free_reply(), when the Reply is destroyed
 * or reset. Move-only; a moved-from Reply is empty. An empty Reply frees
 * nothing and logs nothing. Not thread-safe: one Reply, one thread at a time.
 *
 * Texts from Str(), StrAt() and StrByField() point into the reply, so those
 * getters exist on a named Reply only: on a temporary (a command's result
 * used at once) they do not compile, since the text would outlive its reply.
 * Keep the Reply in a variable first. */
class Reply : public detail::ReplyGetters<Reply> {
 public:
  constexpr Reply() noexcept = default;
  /* Takes over `reply` (NULL gives an empty Reply): it must come from the
   * library, or from hiredis, and be freed by nobody else. */
  explicit Reply(redisReply *reply) noexcept : reply_(reply) {}
  ~Reply() { reset(); }

  Reply(Reply &&other) noexcept : reply_(other.release()) {}
  /* Frees what this Reply held, then takes over `other`'s reply. */
  Reply &operator=(Reply &&other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  Reply(const Reply &) = delete;
  Reply &operator=(const Reply &) = delete;

  redisReply *get() const noexcept { return reply_; }
  explicit operator bool() const noexcept { return reply_ != nullptr; }
  const redisReply *operator->() const noexcept { return reply_; }
  /* A borrowed view, for code written against ReplyView; not on a temporary
   * Reply, whose reply would be freed before the view is used. */
  ReplyView view() const &noexcept { return ReplyView(reply_); }
  ReplyView view() const && = delete;

  /* Hands the reply out unfreed; the caller frees it once with
   * tqredis_free_reply(). The Reply is empty afterwards. */
  [[nodiscard]] redisReply *release() noexcept {
    redisReply *reply = reply_;
    reply_ = nullptr;
    return reply;
  }
  /* Frees the reply held, if any, and takes over `reply`. */
  void reset(redisReply *reply = nullptr) noexcept {
    redisReply *old = reply_;
    reply_ = reply;
    // tqredis_free_reply(NULL) logs "reply = NULL": an empty Reply is no
    // mistake, so it does not call it.
    if (old != nullptr) tqredis_free_reply(old);
  }

  using ReplyGetters::Str;
  using ReplyGetters::StrAt;
  using ReplyGetters::StrByField;
  Result<std::string_view> Str() const && = delete;
  Result<std::string_view> StrAt(int index) const && = delete;
  Result<std::string_view> StrByField(const char *field) const && = delete;

 private:
  redisReply *reply_ = nullptr;
};

/* ---- Commands ----------------------------------------------------------- */

namespace detail {

/* What C's "..." carries safely: scalars and pointers. A class object (a
 * std::string, a std::string_view, a Reply) would be read as garbage. */
template <typename T>
inline constexpr bool kPrintfArgument =
    std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_pointer_v<T> ||
    std::is_null_pointer_v<T>;

}  // namespace detail

/* tqredis_db_command(db, op, -1, flag, format, args...) as a Reply: the
 * reply of a read (op TQREDIS_OP_READ), which may be an error or nil reply
 * (check it); an empty Reply for writes and pubsub commands (pipelined, their
 * replies are never read), and for refused arguments (db or op above 2, NULL
 * format). Blocks, waits, reconnects, locks and logs exactly as the C call
 * does; `flag` takes TQREDIS_CMD_COMMIT and TQREDIS_CMD_NO_RECONNECT.
 *
 * Two forms of one call. The format of TQREDIS_COMMAND() is checked by the
 * compiler against its arguments (-Wformat), as for the C call: prefer it
 * for a literal format. The function template cannot offer that check in
 * C++17: GCC and Clang check a printf format only where a string literal
 * meets a function declared format(printf), and a literal passed through a
 * template parameter is no longer one. The template checks instead, at
 * compile time, that every argument is a scalar or a pointer, the only
 * values C's "..." carries safely (a std::string goes as c_str(), a
 * std::string_view as "%.*s" with static_cast<int>(size()) and data()); the
 * format itself is the caller's to get right. hiredis's binary "%b" is not
 * available through either form. */
template <typename... Args>
Reply Command(int db, int op, uint32_t flag, const char *format,
              Args... args) noexcept {
  static_assert((detail::kPrintfArgument<Args> && ...),
                "tqredis::Command passes its arguments through C's '...': "
                "give scalars and pointers (a std::string's c_str())");
#if defined(__GNUC__)
#pragma GCC diagnostic push
// The format is a parameter by design; see above.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#endif
  return Reply(tqredis_db_command(db, op, -1, flag, format, args...));
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
}

/* TQREDIS_COMMAND(db, op, flag, "literal format", args...): the same call,
 * with the format checked at the call site. A macro, so that the literal
 * reaches the C call declared format(printf). Evaluates each argument once;
 * yields a tqredis::Reply. */
#define TQREDIS_COMMAND(db, op, flag, ...) \
  (::tqredis::Reply(tqredis_db_command((db), (op), -1, (flag), __VA_ARGS__)))

/* ---- Notifications and the subscription table --------------------------- */

/* One notification, or one key replayed by ReplayKeys(), as a callable
 * receives it: a view of the library's record, valid during the call only
 * (so neither copyable nor movable: keep what you need, as values). */
class Notification {
 public:
  explicit Notification(tqredis_pmsg *pmsg) noexcept : pmsg_(pmsg) {}
  Notification(const Notification &) = delete;
  Notification &operator=(const Notification &) = delete;

  /* Database id the notification came from, 0..2. */
  uint32_t db() const noexcept { return pmsg_->db; }
  /* The key, at most 127 characters; key().data() is NUL-terminated, so it
   * may be passed on as a C string. */
  std::string_view key() const noexcept { return pmsg_->key; }
  /* Key command id of the event (TQREDIS_KEYCMD_*), 27 for any other. */
  int32_t cmd() const noexcept { return pmsg_->cmd; }
  /* Its name from g_tqredis_keycmd_str, misspellings included. */
  const char *cmd_name() const noexcept {
    const bool known = pmsg_->cmd >= 0 && pmsg_->cmd < TQREDIS_KEYCMD_NUM;
    return g_tqredis_keycmd_str[known ? pmsg_->cmd : TQREDIS_KEYCMD_OTHER];
  }
  /* The key's value that came with the event; it belongs to the library. */
  ReplyView value() const noexcept { return ReplyView(pmsg_->value); }
  /* The record itself, for the C calls. */
  tqredis_pmsg *get() const noexcept { return pmsg_; }

 private:
  tqredis_pmsg *pmsg_;
};

namespace detail {

/* A callable's hook: the C signature the library calls, with the callable
 * as hook_arg. Its result is ignored by the library. noexcept: a throw ends
 * the process here rather than unwinding through C frames. */
template <typename F>
int CallableHook(tqredis_pmsg *pmsg, void *callable) noexcept {
  const Notification notification(pmsg);
  (*static_cast<F *>(callable))(notification);
  return 0;
}

template <typename F>
struct IsStdFunction : std::false_type {};
template <typename R, typename... A>
struct IsStdFunction<std::function<R(A...)>> : std::true_type {};

/* True for a callable that is certainly empty: a null function pointer or
 * an empty std::function. */
template <typename F>
bool IsEmptyCallable(const F &fn) noexcept {
  if constexpr (std::is_pointer_v<F>) {
    return fn == nullptr;
  } else if constexpr (IsStdFunction<F>::value) {
    return !fn;
  } else {
    return false;
  }
}

}  // namespace detail

/* The host's subscription table, built from C++ callables: one callable per
 * (database, key pattern), called with a const Notification & for each
 * keyspace notification of a matching key (its result, if any, ignored).
 * It produces the pubsub_mng entries and the hooks tqredis_init() takes.
 *
 * Lifetime. The library keeps every registered hook_arg for the life of the
 * process (its subscriptions are never removed), so a registered callable
 * must outlive every notification. The table sees to that itself: once
 * registered, its callables are handed to the library for good, never
 * destroyed, not even at exit, when the pump may still be running on
 * another thread. The table object may go after registration; what the
 * callables capture by reference may not: capture by value, or refer to
 * objects that live as long as notifications can come (globals, or objects
 * that are never destroyed). Until registration the table owns its
 * callables and destroys them with itself.
 *
 * Neither copyable nor movable, so that no second table claims the same
 * callables. Registration happens once: Add() after it, and a second Init()
 * or Register(), are refused. Not thread-safe: build and register it on one
 * thread, before the threads that use the library start. */
class Subscriptions {
 public:
  Subscriptions() = default;
  /* Destroys the callables the library did not keep: all of them when the
   * table was never registered or registration kept nothing. */
  ~Subscriptions() {
    for (const Owned &owned : owned_) owned.destroy(owned.callable);
  }
  Subscriptions(const Subscriptions &) = delete;
  Subscriptions &operator=(const Subscriptions &) = delete;
  Subscriptions(Subscriptions &&) = delete;
  Subscriptions &operator=(Subscriptions &&) = delete;

  /* Adds `fn` for the keys of database `db` (0..2) that match the glob
   * `pattern`. `fn` is copied or moved into the table; it is invoked as
   * fn(const tqredis::Notification &). Returns 0; -2 with nothing added for
   * db above 2, a pattern longer than 127 characters or holding a NUL (the
   * library would cut it and watch other keys), or a null function pointer
   * or empty std::function; -1 once the table was registered. Takes no
   * lock and logs nothing. */
  template <typename F>
  int Add(uint32_t db, std::string_view pattern, F &&fn) {
    using Callable = std::decay_t<F>;
    static_assert(std::is_invocable_v<Callable &, const Notification &>,
                  "a subscription's callable is called with "
                  "(const tqredis::Notification &)");
    if (registered_) return kFail;
    if (db >= TQREDIS_DB_NUM ||
        pattern.size() >= sizeof(pubsub_mng::key_pattern) ||
        pattern.find('\0') != std::string_view::npos ||
        detail::IsEmptyCallable(fn)) {
      return kBadArgs;
    }
    pubsub_mng entry{};
    entry.key_db = db;
    std::memcpy(entry.key_pattern, pattern.data(), pattern.size());
    entry.hook = &detail::CallableHook<Callable>;
    // Ordered so that a host built with exceptions loses nothing when an
    // allocation throws: the callable is owned before it enters the table.
    std::unique_ptr<Callable> callable(new Callable(std::forward<F>(fn)));
    owned_.push_back({callable.get(), &Destroy<Callable>});
    entry.hook_arg = callable.release();
    table_.push_back(entry);
    return kOk;
  }

  /* tqredis_init(table, size, data_check, flag) with this table; returns
   * what it returns (that of registering the table: 0; -2 when data_check
   * is NULL, and then nothing is registered; -1 for an empty table, as for
   * a NULL one, the data check then registered all the same; -3 when memory
   * ran out). -1 without calling it when the table was registered already.
   * The host's one initialisation call: use Register() if tqredis_init()
   * was called already. The data check takes no argument of its own, so it
   * is a plain function (or a lambda without captures). */
  int Init(tqredis_data_check_f data_check, uint32_t flag) {
    if (registered_) return kFail;
    return Registered(tqredis_init(entries(), size(), data_check, flag));
  }

  /* tqredis_pubsub_register() with this table, for a host that called
   * tqredis_init() already: 0; -1 for an empty table; -3 when memory ran
   * out. Subscribed by the next tqredis_db_psubscrible(). -1 without calling
   * it when the table was registered already. */
  int Register() {
    if (registered_) return kFail;
    return Registered(tqredis_pubsub_register(entries(), size()));
  }

  /* The entries, in the order added: pubsub_mng as tqredis_init() reads
   * them, hook_arg pointing to the callable. For inspection: a table handed
   * to the library other than by Init() or Register() still destroys its
   * callables with itself, under the library's feet. */
  const pubsub_mng *table() const noexcept { return table_.data(); }
  int size() const noexcept { return static_cast<int>(table_.size()); }
  /* True once Init() or Register() was called. */
  bool registered() const noexcept { return registered_; }

 private:
  struct Owned {
    void *callable;
    void (*destroy)(void *);
  };
  template <typename F>
  static void Destroy(void *callable) noexcept {
    delete static_cast<F *>(callable);
  }

  // The C calls take a non-const table but only read it.
  pubsub_mng *entries() noexcept {
    return table_.empty() ? nullptr : table_.data();
  }

  // The library keeps the hook_args unless it registered nothing: a NULL
  // data check (-2) or no table (-1). After -3 some entries were kept, and
  // which is not known, so all of them stay.
  int Registered(int rc) noexcept {
    registered_ = true;
    if (rc != kBadArgs && rc != kFail) {
      // Handed over for good: see the class comment.
      owned_.clear();
    }
    return rc;
  }

  std::vector<pubsub_mng> table_;
  std::vector<Owned> owned_;  // callables this table must still destroy
  bool registered_ = false;
};

/* tqredis_scan_key_pattern(db, pattern, count, hook, &fn, kind): replays
 * every key of `db` that matches `pattern` to `fn`, as the notification of
 * its current value, page by page (`count` is each SCAN's COUNT hint);
 * `kind` is TQREDIS_SCAN_STRING, _HASH or _SET. `fn` is called on this
 * thread during the call only, so it may capture anything by reference; the
 * value it sees is freed as soon as it returns. Returns the C call's result:
 * 0 when the walk ended; -1 for an unusable SCAN reply (earlier pages were
 * delivered); -2 with nothing sent for db above 2, a NULL or empty pattern,
 * count < 1, or a null function pointer or empty std::function (logged by
 * the library as its NULL callback). Each command takes the global lock;
 * the walk does not hold it between them. */
template <typename F>
int ReplayKeys(uint32_t db, const char *pattern, int count, int kind, F &&fn) {
  using Callable = std::remove_reference_t<F>;
  static_assert(std::is_invocable_v<Callable &, const Notification &>,
                "a replay's callable is called with "
                "(const tqredis::Notification &)");
  // A null callable goes on as NULL, for the library to refuse and log.
  tqredis_pmsg_hook_f hook =
      detail::IsEmptyCallable(fn) ? nullptr : &detail::CallableHook<Callable>;
  // The C argument is a plain void *; a const callable is called back
  // through a const pointer (CallableHook<const F>), never modified.
  void *arg = const_cast<void *>(static_cast<const void *>(std::addressof(fn)));
  return tqredis_scan_key_pattern(db, pattern, count, hook, arg, kind);
}

/* ---- Global lock -------------------------------------------------------- */

/* Holds the library's global lock for one scope: tqredis_lock() when made,
 * tqredis_unlock() when destroyed. Recursive, as the lock is: calls into the
 * library and other guards may nest inside. Before tqredis_init() enabled
 * the lock (flag & 2), and without that flag, it holds nothing and blocks
 * no one; a guard made then releases nothing later, even if the lock was
 * enabled inside its scope (the library counts what each thread took).
 * Neither copyable nor movable: it releases on the thread that took. Give
 * it a name (tqredis::LockGuard lock;): a temporary releases at once. */
class LockGuard {
 public:
  LockGuard() noexcept { tqredis_lock(); }
  ~LockGuard() { tqredis_unlock(); }
  LockGuard(const LockGuard &) = delete;
  LockGuard &operator=(const LockGuard &) = delete;
  LockGuard(LockGuard &&) = delete;
  LockGuard &operator=(LockGuard &&) = delete;
};

/* ---- Runtime options ---------------------------------------------------- */
/* Typed setters over tqredis_set_option(), one per switch (the header
 * tqredis.h documents each). Each returns 0, or -1 after the library's
 * level-8 line when the value is out of the switch's range; none takes the
 * global lock. The getters return the value in force (a line's or a call's,
 * else the safe value when safe is on, else 0). */
namespace options {

inline int SetReplies(bool on) noexcept {
  return tqredis_set_option("replies", on ? 1 : 0);
}
inline int SetWaitLimit(std::chrono::milliseconds limit) noexcept {
  return tqredis_set_option("waitlimit", static_cast<long>(limit.count()));
}
inline int SetExitStatus(int status) noexcept {
  return tqredis_set_option("exitstatus", status);
}
inline int SetKeepCopies(int copies) noexcept {
  return tqredis_set_option("keepcopies", copies);
}
inline int SetRecordAll(bool on) noexcept {
  return tqredis_set_option("recordall", on ? 1 : 0);
}
inline int SetHookWarn(std::chrono::milliseconds limit) noexcept {
  return tqredis_set_option("hookwarn", static_cast<long>(limit.count()));
}
inline int SetReconnect(bool on) noexcept {
  return tqredis_set_option("reconnect", on ? 1 : 0);
}
inline int SetSafe(bool on) noexcept {
  return tqredis_set_option("safe", on ? 1 : 0);
}

inline bool Replies() noexcept { return tqredis_get_option("replies") != 0; }
inline std::chrono::milliseconds WaitLimit() noexcept {
  return std::chrono::milliseconds(tqredis_get_option("waitlimit"));
}
inline int ExitStatus() noexcept {
  return static_cast<int>(tqredis_get_option("exitstatus"));
}
inline int KeepCopies() noexcept {
  return static_cast<int>(tqredis_get_option("keepcopies"));
}
inline bool RecordAll() noexcept {
  return tqredis_get_option("recordall") != 0;
}
inline std::chrono::milliseconds HookWarn() noexcept {
  return std::chrono::milliseconds(tqredis_get_option("hookwarn"));
}
inline bool Reconnect() noexcept {
  return tqredis_get_option("reconnect") != 0;
}
inline bool Safe() noexcept { return tqredis_get_option("safe") != 0; }

}  // namespace options

}  // namespace tqredis

#endif /* TQREDIS_HPP_ */
