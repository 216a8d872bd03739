#include "process/msgtable.h"

namespace mem {

namespace {

constexpr MEMMessageRow kMessages[] = {
#define MEM_MESSAGE_ROW(name, code, message) {name, 0, #name, message, ""},
    MEMERR_LIST(MEM_MESSAGE_ROW)
#undef MEM_MESSAGE_ROW
        {0, 0, "", "", nullptr},
};

}  // namespace

const MEMMessageRow *messageTable() noexcept {
  return kMessages;
}

}  // namespace mem
