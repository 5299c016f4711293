// What each call of the codec library and each request of the device does with the board.
#pragma once

#include <cstdint>

#include "board/board.h"
#include "link/request.h"

namespace simcam
{

struct Reply {
    WireReply head{};
    uint8_t payload[sizeof(WireFocusStats)]{}; // wire_reply_size(head.call) bytes where result is 0
    int fd = -1;                               // borrowed from the board: send before unlocking
};

// Does what request asks for session; a forced_error other than 0 makes it fail with that code and
// change nothing. Logs every call except read requests that succeed. The caller holds the board's
// lock.
void calls_execute(Board &board, Session &session, const Request &request, uint32_t forced_error,
                   Reply *reply);

} // namespace simcam
