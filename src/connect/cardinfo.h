// The card information: which databases exist, this card's node, the master.
#ifndef TQREDIS_SRC_CONNECT_CARDINFO_H_
#define TQREDIS_SRC_CONNECT_CARDINFO_H_

#include <cstdint>

// A node field of 0xFFFFFFFF means "not known yet".
struct tqredis_cardinfo {
  uint32_t db_bitmap;    // bit n set: database n exists
  uint32_t my_node;      // this card's node
  uint32_t master_node;  // the master card's node
};

namespace tqredis::detail {

// Guarded by the global lock. Reset at load by tqredis_cardinfo_init().
extern tqredis_cardinfo g_tqredis_cardinfo;

// The value of a node field not read yet.
inline constexpr uint32_t kUnknownNode = 0xFFFFFFFFu;

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CONNECT_CARDINFO_H_
