// Packets from two clients of the camera's socket, and posts that start and stop in between. Each
// packet must be refused or answered by a record of the protocol.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "board/board.h"
#include "input.h"
#include "link/calls.h"

using namespace simcam;

static void demand(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "%s\n", what);
        abort();
    }
}

static void packet(Board &board, Session &session, Input *input)
{
    const uint8_t shape = input->byte();
    uint8_t bytes[WIRE_REQUEST_MAX + 8] = {};
    size_t size = input->byte() % sizeof bytes;
    size_t from = 0;
    if (shape < 224) { // a packet with a valid header and length
        const WireHeader header = {WIRE_VERSION, shape % (WIRE_CALL_END + 1u), input->byte()};
        memcpy(bytes, &header, sizeof header);
        from = sizeof header;
        size = from + wire_request_size(header.call);
        // Random ids rarely exist, so the input can select an existing one by its index.
        if ((shape & 64) != 0 && size >= from + 4) {
            const uint32_t id = board.post[input->byte() % POST_COUNT].state.res_id;
            memcpy(bytes + from, &id, sizeof id);
            from += sizeof id;
        }
    }
    for (; from < size; from++)
        bytes[from] = input->byte();

    Request request;
    if (!request_decode(bytes, size, &request))
        return;
    demand(request.header.call < WIRE_CALL_END, "an unknown call");
    demand(size == sizeof(WireHeader) + wire_request_size(request.header.call), "a wrong length");
    demand(request_call(request_name(request.header.call)) == request.header.call, "a wrong name");
    (void)request_arguments(request);

    const std::lock_guard guard(board.lock);
    const Fault fault = board_take_fault(board, request_name(request.header.call));
    if (request.header.call == WIRE_FOCUS_READ && !board_reading_ready(board, session))
        return;
    Reply reply;
    calls_execute(board, session, request, fault.error, &reply);
    demand(reply.head.call == request.header.call, "an answer to another call");
    demand(reply.head.number == request.header.number, "an answer to another request");
    demand((reply.head.result == 0) == (reply.head.error == 0), "result and code disagree");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input = {data, size};
    Board board;
    demand(board_init(board, 1, 1u << input.byte() % 7), "board_init failed");
    Session sessions[2];
    for (Session &session : sessions)
        board_add_session(board, session, 1);

    for (int steps = 0; steps < 200 && !input.empty(); steps++) {
        const uint8_t step = input.byte();
        switch (step % 8) {
        case 0: {
            const uint32_t width = input.half();
            (void)board_start_post(board, step / 8 % 5, {width, input.half()});
            break;
        }
        case 1:
            (void)board_stop_post(board, step / 8 % 5);
            break;
        case 2: {
            Measurement measurement = {};
            measurement.number = board.latest.number + 1;
            measurement.raw = input.word();
            board_publish(board, measurement);
            break;
        }
        case 3: {
            const PostImage image = board_post_image(board, step / 8 % 4, true);
            for (const PlaneImage &plane : image.plane)
                demand(plane.bytes.empty() ||
                           plane.bytes.size() == (size_t)plane.state.pitch * plane.state.height,
                       "a picture of another size than its plane");
            break;
        }
        default:
            packet(board, sessions[step / 8 % 2], &input);
        }
    }
    for (Session &session : sessions)
        board_remove_session(board, session);
    return 0;
}
