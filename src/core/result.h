// The library's result codes, named once.
#ifndef TQREDIS_SRC_CORE_RESULT_H_
#define TQREDIS_SRC_CORE_RESULT_H_

namespace tqredis::detail {

// What acting calls return. A function that gives a value its own meaning
// (a slot index, a count, 1/0 for a question) says so in its contract.
enum Result : int {
  kOk = 0,
  kFail = -1,
  kBadArgs = -2,
  kNoMemory = -3,
  kWrongType = -4,
  kNoField = -5,
};

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_RESULT_H_
