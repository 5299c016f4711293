// The page's files, built into the program from simcam/web/page/.
#pragma once

#include <string_view>

namespace simcam
{

struct PageFile {
    std::string_view path; // "/app.js"; "/" for index.html
    std::string_view type; // content type
    std::string_view content;
    std::string_view etag; // of this content, with its quotes
};

// The file at path; null if there is none.
const PageFile *page_find(std::string_view path);

} // namespace simcam
