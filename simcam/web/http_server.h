// What the web interface's sources share: the server's record, answers, and streams.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "web/http_picture.h"
#include "web/http_route.h"

struct MHD_Daemon;

namespace simcam
{

struct HttpServer {
    Camera &camera;
    std::shared_ptr<PictureCache> pictures;
    std::string address;
    std::string machine_name;
    std::string session; // differs from server to server: numbers of another one mean nothing here
    std::atomic<bool> stopping{false};
    std::atomic<unsigned> streams{0};
    MHD_Daemon *daemon = nullptr;

    explicit HttpServer(Camera &its_camera) : camera(its_camera)
    {
    }
};

// ---- answers (http_answer.cpp) ----

struct HttpReply {
    unsigned status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
};

HttpReply reply_error(unsigned status, const std::string &message);
// Answers everything that is not a stream.
HttpReply reply_answer(HttpServer &server, const RoutedRequest &request);
// What a route of pictures asks for.
PictureRequest reply_picture_request(const RoutedRequest &request);

// ---- streams (http_stream.cpp) ----

// An endless answer. next gives the bytes that follow; none when there is nothing new yet.
struct Stream {
    HttpServer *server = nullptr;
    std::string type;
    int socket = -1; // the reader's
    std::function<std::string()> next;
    std::string pending;
    size_t sent = 0;

    explicit Stream(HttpServer *of); // counted in of->streams while it lives
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    ~Stream();
};

bool stream_is(RouteId id);
// last_id is the id of the last event that the reader got before it lost its connection, or empty.
std::unique_ptr<Stream> stream_make(HttpServer &server, const RoutedRequest &request,
                                    const std::string &last_id);
// Copies what follows to buffer, at most size bytes; waits for it. -1 at the end: the reader left
// or the server stops.
ssize_t stream_read(Stream &stream, char *buffer, size_t size);

} // namespace simcam
