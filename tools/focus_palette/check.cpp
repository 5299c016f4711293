// Contrast, opacity and the entries that the overlay process writes itself.

#include "check.h"

#include <cmath>
#include <cstdio>

namespace palette
{

namespace
{

// What the overlay process writes over the file when it has loaded it. -1: the file's byte stays.
struct Forced {
    int index;
    int byte[ENTRY_BYTES];
};

constexpr Forced FORCED_ENTRIES[] = {
    {TEXT, {-1, -1, -1, 0x08}},
    {BOX, {0xEF, 0x28, 0x6D, -1}},
    {FILL, {0x4C, 0x54, 0xFF, -1}},
    {MARKER, {0xB2, 0xAA, 0x00, -1}},
};

double linear(uint8_t component)
{
    const double value = component / 255.0;
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double luminance(const Rgb &rgb)
{
    return 0.2126 * linear(rgb.r) + 0.7152 * linear(rgb.g) + 0.0722 * linear(rgb.b);
}

std::array<double, 3> lab_of(const Rgb &rgb)
{
    const double r = linear(rgb.r), g = linear(rgb.g), b = linear(rgb.b);
    const auto f = [](double t) {
        return t > 216.0 / 24389.0 ? std::cbrt(t) : (24389.0 / 27.0 * t + 16.0) / 116.0;
    };
    const double x = f((0.4124564 * r + 0.3575761 * g + 0.1804375 * b) / 0.95047);
    const double y = f(0.2126729 * r + 0.7151522 * g + 0.0721750 * b);
    const double z = f((0.0193339 * r + 0.1191920 * g + 0.9503041 * b) / 1.08883);
    return {116.0 * y - 16.0, 500.0 * (x - y), 200.0 * (y - z)};
}

const Entry &entry_of(const Table &table, int index)
{
    return table[static_cast<size_t>(index)];
}

std::string name_of(const Table &table, int index)
{
    return "entry " + std::to_string(index) + " (" + entry_of(table, index).name + ")";
}

Finding check_forced(const Table &table, const Forced &forced)
{
    const Entry &entry = entry_of(table, forced.index);
    const uint8_t bytes[ENTRY_BYTES] = {entry.ycc[0], entry.ycc[1], entry.ycc[2], entry.opacity};
    Finding finding = {true, forced.index, name_of(table, forced.index)};
    std::string wrong;
    for (int i = 0; i < ENTRY_BYTES; ++i) {
        if (forced.byte[i] < 0 || forced.byte[i] == bytes[i])
            continue;
        char text[64];
        std::snprintf(text, sizeof text, ": byte %d is %02X, the overlay process writes %02X", i,
                      bytes[i], static_cast<unsigned>(forced.byte[i]));
        wrong += text;
    }
    finding.good = wrong.empty();
    finding.text += wrong.empty() ? ": as the overlay process writes it" : wrong;
    return finding;
}

Finding check_opacity(const Table &table, int index, bool opaque)
{
    const int opacity = entry_of(table, index).opacity;
    const bool good = opaque ? opacity >= OPAQUE : opacity == 0;
    std::string text = name_of(table, index) + ": opacity " + std::to_string(opacity);
    if (!good)
        text += opaque ? ", wanted 8: it must cover the picture"
                       : ", wanted 0: cleared memory must let the picture through";
    return {good, index, text};
}

Finding check_contrast(const Table &table, int index, double least, double least_difference)
{
    const Rgb front = rgb_of(entry_of(table, index).ycc);
    const Rgb back = rgb_of(entry_of(table, BOX).ycc);
    const double ratio = contrast_ratio(front, back);
    const double difference = color_difference(front, back);
    char text[128];
    std::snprintf(text, sizeof text, ": contrast %.2f on entry %d, color difference %.0f", ratio,
                  BOX, difference);
    Finding finding = {ratio >= least, index, name_of(table, index) + text};
    if (finding.good)
        return finding;
    if (least_difference > 0 && difference >= least_difference) {
        finding.good = true;
        finding.text += " (told apart by its color)";
    } else if (least_difference > 0) {
        std::snprintf(text, sizeof text, "; wanted a contrast of %.1f or a difference of %.0f",
                      least, least_difference);
        finding.text += text;
    } else {
        std::snprintf(text, sizeof text, "; wanted a contrast of %.1f", least);
        finding.text += text;
    }
    return finding;
}

} // namespace

double contrast_ratio(const Rgb &a, const Rgb &b)
{
    const double first = luminance(a), second = luminance(b);
    return (std::fmax(first, second) + 0.05) / (std::fmin(first, second) + 0.05);
}

double color_difference(const Rgb &a, const Rgb &b)
{
    const auto first = lab_of(a), second = lab_of(b);
    return std::hypot(first[0] - second[0], first[1] - second[1], first[2] - second[2]);
}

std::vector<Finding> check(const Table &table)
{
    std::vector<Finding> findings;
    for (const Forced &forced : FORCED_ENTRIES)
        findings.push_back(check_forced(table, forced));
    findings.push_back(check_opacity(table, CLEAR, false));
    for (const int index : {FRAME, TEXT, BOX, FILL, MARKER, HIGHLIGHT})
        findings.push_back(check_opacity(table, index, true));
    for (const int index : {TEXT, HIGHLIGHT})
        findings.push_back(check_contrast(table, index, TEXT_CONTRAST, 0.0));
    for (const int index : {FRAME, FILL, MARKER})
        findings.push_back(check_contrast(table, index, GRAPHIC_CONTRAST, GRAPHIC_DIFFERENCE));
    return findings;
}

} // namespace palette
