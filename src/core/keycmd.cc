// The exported key command name table, expanded from the one list.
#include "core/keycmd.h"

#include <iterator>

#include "tqredis.h"

const char *const g_tqredis_keycmd_str[28] = {
#define TQREDIS_X(name) #name,
    TQREDIS_KEYCMD_LIST(TQREDIS_X)
#undef TQREDIS_X
};
static_assert(std::size(g_tqredis_keycmd_str) ==
              tqredis::detail::kKeyCmdCount);  // no terminator
