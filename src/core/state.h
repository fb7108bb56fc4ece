// The process's identity and start-up state: what every layer may read.
#ifndef TQREDIS_SRC_CORE_STATE_H_
#define TQREDIS_SRC_CORE_STATE_H_

#include "tqredis.h"

// Defined in core/state.cc and declared by the public header, as the host
// reads them too: g_tqredis_proc_name (written once at load),
// g_tqredis_init_ok (set by tqredis_init(), never cleared), the name tables
// g_tqredis_dbstr and g_tqredis_opstr, and tqredis_parse_proc_name().

#endif  // TQREDIS_SRC_CORE_STATE_H_
