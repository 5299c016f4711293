// A client's end of the connection to simcam: connecting, and one request and its answer.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "wire.h"

// A camera that takes longer to answer is considered lost. Twice the longest delay of a fault.
constexpr int CLIENT_TIMEOUT_MS = 2 * (int)WIRE_DELAY_MAX_MS;

// Explains on standard error, once per process, that the environment names no run directory.
void client_check();

// Writes the run directory, a slash and name to path. Returns false if the environment names no run
// directory or the result does not fit.
bool client_path(char *path, size_t size, const char *name);

// Returns a connected socket, or -1. The first failure of the process is explained on standard
// error.
int client_connect();

// Sends the request of a call and waits for its answer. request holds wire_request_size(call)
// bytes, reply takes wire_reply_size(call) and is filled on success only; fd (may be null) takes
// the descriptor that came with the answer, or -1.
//
// Returns 0 with the camera's code in *error, 0 for success; or -1 if the connection has failed or
// the answer is malformed. The connection must not be used after that.
int client_call(int connection, uint32_t call, const void *request, void *reply, int *fd,
                uint32_t *error);

// The two halves of client_call, for callers that wait in between. client_receive does not wait.
int client_send(int connection, uint32_t call, const void *request, uint32_t *number);
int client_receive(int connection, uint32_t call, uint32_t number, void *reply, int *fd,
                   uint32_t *error);
// Explains on standard error, once per process, that the camera does not answer.
void client_lost();
