// The socket that codec libraries and camera devices of overlay processes connect to.
#pragma once

#include <memory>
#include <string>

#include "board/board.h"

namespace simcam
{

// Further clients are turned away; a client that has never sent a request is dropped first.
constexpr size_t CLIENT_COUNT_MAX = 64;

struct Server;
// Closes every connection, ends the thread, removes the socket.
struct ServerDelete {
    void operator()(Server *server) const;
};
using ServerPtr = std::unique_ptr<Server, ServerDelete>;

// Listens at path and serves board, which must outlive it, from a thread of its own. Returns null
// with *error set on failure.
ServerPtr server_start(Board &board, const std::string &path, std::string *error);

} // namespace simcam
