// Bounds as text, and sizes to and from text.

#include "board/limits.h"

#include <charconv>

namespace simcam
{

std::string number_text(double value)
{
    char text[32];
    const auto [end, code] = std::to_chars(text, text + sizeof text, value);
    return code == std::errc() ? std::string(text, end) : std::string("?");
}

std::string range_text(const Range &range)
{
    return number_text(range.least) + " to " + number_text(range.most);
}

std::string pitch_aligns_text()
{
    std::string text;
    for (size_t i = 0; i < PITCH_ALIGNS.size(); i++) {
        const bool last = i + 1 == PITCH_ALIGNS.size();
        text += (i == 0 ? "" : last ? " or " : ", ") + std::to_string(PITCH_ALIGNS[i]);
    }
    return text;
}

std::string range_refuse(const char *name, const Range &range, double value)
{
    if (value >= range.least && value <= range.most)
        return {};
    return std::string(name) + " must be " + range_text(range);
}

static std::optional<uint32_t> side_parse(std::string_view text)
{
    uint32_t value = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.size() > 9 || code != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<Size> size_parse(std::string_view text)
{
    const size_t cross = text.find('x');
    if (cross == std::string_view::npos)
        return std::nullopt;
    const std::optional<uint32_t> width = side_parse(text.substr(0, cross));
    const std::optional<uint32_t> height = side_parse(text.substr(cross + 1));
    if (!width || !height)
        return std::nullopt;
    return Size{*width, *height};
}

std::string size_text(const Size &size)
{
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

std::string post_refuse(int post)
{
    if (post >= 0 && post < POST_COUNT)
        return {};
    return "post " + std::to_string(post) + ": the posts are 0 to " +
           std::to_string(POST_COUNT - 1);
}

} // namespace simcam
