// The table of routes: a row for each with its path, parameters, text for /api and handler.
#pragma once

#include <span>

#include "web/routing.h"

namespace simcam
{

// The first row is the page, which also answers every path outside /api without a row.
std::span<const Route> http_routes();

Answer answer_error(unsigned status, const std::string &message);

} // namespace simcam
