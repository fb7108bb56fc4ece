// Typed getters over replies: one core, thin checked entries.
#include "tqredis.h"
