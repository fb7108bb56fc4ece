// What the layers above use of the command path: tqredis_db_command() (the
// one entry of every command), the flushes tqredis_commit_command() and
// tqredis_commit_command_all(), and the slot choice tqredis_calc_dbop(). All
// are declared by the public header.
#ifndef TQREDIS_SRC_COMMAND_COMMAND_H_
#define TQREDIS_SRC_COMMAND_COMMAND_H_

#include "tqredis.h"

#endif  // TQREDIS_SRC_COMMAND_COMMAND_H_
