// Streams: pictures and events that go on until their reader leaves.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

#include "web/frames.h"

namespace simcam
{

struct Web;

struct HttpStream {
    Web *web = nullptr;
    std::string type;
    int socket = -1; // the reader's
    // Returns the next bytes, or none when there is nothing new yet; may wait for a moment.
    std::function<std::string()> next;
    std::string pending;
    size_t sent = 0; // of pending

    explicit HttpStream(Web *of); // counted in of->streams while it exists
    HttpStream(const HttpStream &) = delete;
    HttpStream &operator=(const HttpStream &) = delete;
    ~HttpStream();
};

// Copies the next bytes to buffer, at most size of them; waits for them. Returns -1 at the end: the
// reader left or the server stops.
ssize_t stream_read(HttpStream &stream, char *buffer, size_t size);

// JPEGs, at most fps a second, and only as fast as the reader takes them.
std::unique_ptr<HttpStream> stream_pictures(Web &web, const FrameRequest &request, double fps);

// kinds: names of EVENT_KINDS, separated by commas. backlog: start with the records that are kept.
// last_id: the id of the last event that the reader received before it lost its connection, or
// empty.
std::unique_ptr<HttpStream> stream_events(Web &web, const std::string &kinds, bool backlog,
                                          const std::string &last_id);
constexpr const char *EVENT_KINDS[] = {"state", "measurement", "output", "call"};

} // namespace simcam
