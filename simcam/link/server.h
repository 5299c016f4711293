// The socket that codec libraries and camera devices of overlay processes connect to.
#pragma once

#include <memory>
#include <string>

#include "board/board.h"

namespace simcam
{

// More clients than this are turned away; those that have never said anything are dropped first.
constexpr size_t CLIENT_COUNT_MAX = 64;

struct Server;

// Listens at path and serves board from a thread of its own. Null with *error filled on failure.
// What it returns must see server_stop before its last owner lets go of it, and board outlives it.
std::shared_ptr<Server> server_start(Board &board, const std::string &path, std::string *error);
// Closes every connection, ends the thread, removes the socket.
void server_stop(Server &server);
// Tells it that there is a new measurement.
void server_wake(Server &server);

} // namespace simcam
