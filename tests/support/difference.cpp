#include "difference.h"

#include <algorithm>
#include <cstdio>

std::string index_name(uint8_t index)
{
    const auto named = [index](const char *name) {
        return std::string(name) + " (" + std::to_string(index) + ")";
    };
    switch (index) {
    case 0:
        return named("cleared");
    case 11:
        return named("frame");
    case 16:
        return named("text");
    case 17:
        return named("box");
    case 18:
        return named("fill");
    case 19:
        return named("marker");
    case 20:
        return named("highlight");
    case 0xA5:
        return named("not written");
    default:
        return "index " + std::to_string(index);
    }
}

size_t differing_bytes(std::span<const uint8_t> actual, std::span<const uint8_t> expected)
{
    const size_t common = std::min(actual.size(), expected.size());
    size_t count = std::max(actual.size(), expected.size()) - common;
    for (size_t i = 0; i < common; i++)
        count += actual[i] != expected[i];
    return count;
}

// The first difference, at the place and with the values that describe gives it.
template <typename Describe>
static std::string first_difference(std::span<const uint8_t> actual,
                                    std::span<const uint8_t> expected, const Describe &describe)
{
    if (actual.size() != expected.size())
        return std::to_string(actual.size()) + " bytes, expected " +
               std::to_string(expected.size());

    const auto [a, e] = std::mismatch(actual.begin(), actual.end(), expected.begin());
    if (a == actual.end())
        return "";
    return describe((size_t)(a - actual.begin()), *a, *e) + "; " +
           std::to_string(differing_bytes(actual, expected)) + " of " +
           std::to_string(actual.size()) + " bytes differ";
}

std::string difference(std::span<const uint8_t> actual, std::span<const uint8_t> expected,
                       size_t pitch)
{
    return first_difference(actual, expected, [pitch](size_t offset, uint8_t a, uint8_t e) {
        const std::string place = pitch == 0 ? "byte " + std::to_string(offset)
                                             : "line " + std::to_string(offset / pitch) +
                                                   ", column " + std::to_string(offset % pitch);
        return place + ": " + index_name(a) + ", expected " + index_name(e);
    });
}

std::string table_difference(std::span<const uint8_t> actual, std::span<const uint8_t> expected)
{
    return first_difference(actual, expected, [](size_t offset, uint8_t a, uint8_t e) {
        char text[80];
        snprintf(text, sizeof text, "entry %zu, byte %zu: 0x%02X, expected 0x%02X", offset / 4,
                 offset % 4, a, e);
        return std::string(text);
    });
}
