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
    std::unique_ptr<HttpStream> stream; // instead of the body
};

} // namespace simcam
