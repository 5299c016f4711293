// Lists of words in messages, for all of simcam.
#pragma once

#include <string>
#include <vector>

namespace simcam
{

// "photo, chart"
inline std::string join(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

} // namespace simcam
