// Conditional requests and requests for a range of an answer.
#include "web/answer.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include <strings.h>

namespace simcam
{

// Whether the list of If-None-Match has etag. "W/" in front of a tag makes no difference here.
static bool list_has(std::string_view list, std::string_view etag)
{
    while (!list.empty()) {
        const size_t comma = std::min(list.find(','), list.size());
        std::string_view item = list.substr(0, comma);
        list.remove_prefix(std::min(comma + 1, list.size()));
        item.remove_prefix(std::min(item.find_first_not_of(" \t"), item.size()));
        item = item.substr(0, item.find_last_not_of(" \t") + 1);
        if (item.starts_with("W/"))
            item.remove_prefix(2);
        if (item == "*" || item == etag)
            return true;
    }
    return false;
}

static std::optional<size_t> read_count(std::string_view text)
{
    size_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return count;
}

// The bytes first..last of a body; first > last: none of them exists.
struct ByteRange {
    size_t first = 1, last = 0;
};

// Reads "bytes=FIRST-LAST", "bytes=FIRST-" or "bytes=-COUNT", the last bytes. Returns nothing for
// anything else.
static std::optional<ByteRange> read_range(std::string_view text, size_t size)
{
    constexpr std::string_view unit = "bytes=";
    if (strncasecmp(text.data(), unit.data(), std::min(unit.size(), text.size())) != 0 ||
        text.size() < unit.size())
        return std::nullopt;
    text.remove_prefix(unit.size());
    const size_t dash = text.find('-');
    if (dash == std::string_view::npos)
        return std::nullopt;
    const std::string_view before = text.substr(0, dash), behind = text.substr(dash + 1);
    const std::optional<size_t> left = read_count(before), right = read_count(behind);
    if ((!left && !before.empty()) || (!right && !behind.empty()) || (!left && !right))
        return std::nullopt;
    if (!left)
        return *right == 0 || size == 0 ? ByteRange()
                                        : ByteRange{size - std::min(*right, size), size - 1};
    if (right && *right < *left)
        return std::nullopt;
    if (*left >= size)
        return ByteRange();
    return ByteRange{*left, right ? std::min(*right, size - 1) : size - 1};
}

void answer_reduce(const Conditions &conditions, Answer *answer)
{
    answer->headers.emplace_back("ETag", answer->etag);
    answer->headers.emplace_back("Accept-Ranges", "bytes");
    if (list_has(conditions.if_none_match, answer->etag)) {
        answer->status = 304; // the body stays for its length: libmicrohttpd sends the headers only
        return;
    }
    const std::string size = std::to_string(answer->body->size());
    const std::optional<ByteRange> range = read_range(conditions.range, answer->body->size());
    if (!range || (!conditions.if_range.empty() && conditions.if_range != answer->etag))
        return;
    if (range->first > range->last) {
        answer->status = 416;
        answer->headers.emplace_back("Content-Range", "bytes */" + size);
        answer->body = std::make_shared<const std::string>();
        return;
    }
    answer->status = 206;
    answer->headers.emplace_back("Content-Range", "bytes " + std::to_string(range->first) + "-" +
                                                      std::to_string(range->last) + "/" + size);
    answer->body = std::make_shared<const std::string>(
        answer->body->substr(range->first, range->last - range->first + 1));
}

} // namespace simcam
