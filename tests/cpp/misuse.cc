// Uses of tqredis.hpp that must not compile, one per TQ_MISUSE value (see
// misuse_test.sh). Value 0 is correct code, so that a harness unable to
// compile anything fails instead of passing every case.
#include <string>
#include <string_view>
#include <utility>

#include "tqredis.hpp"

void Misuse(tqredis::Reply &named, tqredis::Subscriptions &table,
            const tqredis::Notification &notification);

void Misuse(tqredis::Reply &named, tqredis::Subscriptions &table,
            const tqredis::Notification &notification) {
  (void)named;
  (void)table;
  (void)notification;
  std::string key = "k";
#if TQ_MISUSE == 0
  const tqredis::Result<std::string_view> text = named.Str();
  const tqredis::Reply reply =
      TQREDIS_COMMAND(0, 0, 0, "GET %s %d", key.c_str(), text.code());
  (void)tqredis::Command(0, 0, 0, "GET %s", key.c_str()).Int();
  (void)table.Add(0, "k*", [](const tqredis::Notification &) {});
  (void)notification.key();
#elif TQ_MISUSE == 1  // a second owner of one reply
  tqredis::Reply copy = named;
#elif TQ_MISUSE == 2  // text of a reply freed at the end of the statement
  auto text = tqredis::Command(0, 0, 0, "GET k").Str();
#elif TQ_MISUSE == 3  // a class object through C's "..."
  tqredis::Reply reply = tqredis::Command(0, 0, 0, "GET %s", key);
#elif TQ_MISUSE == 4  // a view is a class object too
  tqredis::Reply reply =
      tqredis::Command(0, 0, 0, "GET %s", std::string_view(key));
#elif TQ_MISUSE == 5  // the checked form sees the format
  tqredis::Reply reply = TQREDIS_COMMAND(0, 0, 0, "GET %d", key.c_str());
#elif TQ_MISUSE == 6  // a callable the hook cannot call
  (void)table.Add(0, "k*", [](const std::string &) {});
#elif TQ_MISUSE == 7  // a notification kept past its call
  tqredis::Notification kept = notification;
#elif TQ_MISUSE == 8  // a second table claiming the same callables
  tqredis::Subscriptions other(std::move(table));
#elif TQ_MISUSE == 9  // a view of a reply freed at the end of the statement
  tqredis::ReplyView view = tqredis::Command(0, 0, 0, "GET k").view();
#endif
}
