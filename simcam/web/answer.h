// The answer to a request: bytes, or a stream.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "web/streams.h"

namespace simcam
{

struct Answer {
    unsigned status = 200;
    std::string type = "application/json";
    std::shared_ptr<const std::string> body; // shared by the readers of one picture
    std::vector<std::pair<std::string, std::string>> headers;
    std::string etag; // of a body that is the same at every request, with its quotes
    std::unique_ptr<HttpStream> stream; // instead of the body
};

// Headers of a request, empty if absent.
struct Conditions {
    std::string if_none_match;
    std::string range;
    std::string if_range;
};

// Reduces an answer with a tag to what the conditions ask for: 304 (its body is not sent), 206 with
// one range of it, or 416. Several ranges, and a malformed range, are ignored.
void answer_reduce(const Conditions &conditions, Answer *answer);

} // namespace simcam
