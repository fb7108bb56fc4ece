// The card information: which databases exist, this card's node, the master.
#include "core/cardinfo.h"

#include "tqredis.h"

tqredis_cardinfo g_tqredis_cardinfo = {7, 0xFFFFFFFFu, 0xFFFFFFFFu};

// All three databases present; both nodes unknown until the first reading.
void tqredis_cardinfo_init(void) {
  g_tqredis_cardinfo.db_bitmap = 7;
  g_tqredis_cardinfo.my_node = 0xFFFFFFFFu;
  g_tqredis_cardinfo.master_node = 0xFFFFFFFFu;
}
