// The lookup from an event name to a key command id.
#include "core/keycmd.h"

#include <gtest/gtest.h>

#include "tqredis.h"

using tqredis::detail::KeyCmdFromEvent;

TEST(KeyCmd, EachNameMapsToItsOwnId) {
  for (int id = 0; id < TQREDIS_KEYCMD_OTHER; ++id) {
    EXPECT_EQ(KeyCmdFromEvent(g_tqredis_keycmd_str[id]), id) << g_tqredis_keycmd_str[id];
  }
}

TEST(KeyCmd, UnknownEventMapsToOther) {
  EXPECT_EQ(KeyCmdFromEvent("rename_from"), TQREDIS_KEYCMD_OTHER);
  EXPECT_EQ(KeyCmdFromEvent(""), TQREDIS_KEYCMD_OTHER);
}

TEST(KeyCmd, MatchIsExactAndCaseSensitive) {
  EXPECT_EQ(KeyCmdFromEvent("SET"), TQREDIS_KEYCMD_OTHER);
  EXPECT_EQ(KeyCmdFromEvent("se"), TQREDIS_KEYCMD_OTHER);
  EXPECT_EQ(KeyCmdFromEvent("sets"), TQREDIS_KEYCMD_OTHER);
}

TEST(KeyCmd, CorrectlySpelledMembersIsNotTheMisspelledId) {
  EXPECT_EQ(KeyCmdFromEvent("smembers"), TQREDIS_KEYCMD_OTHER);
  EXPECT_EQ(KeyCmdFromEvent("smermbers"), TQREDIS_KEYCMD_SMERMBERS);
}

TEST(KeyCmd, OtherItselfMapsToOther) {
  EXPECT_EQ(KeyCmdFromEvent("other"), TQREDIS_KEYCMD_OTHER);
}
