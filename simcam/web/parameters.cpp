// From text and JSON values to checked values.
#include "web/parameters.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "board/state.h"
#include "words.h"

namespace simcam
{

bool Values::has(const std::string &name) const
{
    return number.count(name) || text.count(name);
}

int Values::integer(const std::string &name) const
{
    return static_cast<int>(number.at(name));
}

bool Values::flag(const std::string &name) const
{
    return number.at(name) != 0;
}

// ---- text to values ----

static std::optional<double> read_number(std::string_view text)
{
    double value = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (code != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

static std::optional<double> read_unsigned(std::string_view text, int base)
{
    uint64_t value = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (code != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return static_cast<double>(value);
}

static std::optional<double> read_code(std::string_view text)
{
    if (text == "forever")
        return FAULT_FOREVER;
    if (text.size() > 2 && text[0] == '0' && (text[1] | 0x20) == 'x')
        return read_unsigned(text.substr(2), 16);
    return read_unsigned(text, 10);
}

static std::optional<double> read_flag(std::string_view text)
{
    if (text == "1" || text == "true")
        return 1;
    if (text == "0" || text == "false")
        return 0;
    return std::nullopt;
}

// ---- one parameter ----

const char *parameter_kind_name(ParameterKind kind)
{
    switch (kind) {
    case ParameterKind::INTEGER:
        return "integer";
    case ParameterKind::NUMBER:
        return "number";
    case ParameterKind::FLAG:
        return "flag";
    case ParameterKind::TEXT:
    case ParameterKind::CHOICES:
        return "text";
    case ParameterKind::SIZE:
        return "size";
    case ParameterKind::CODE:
        return "code";
    }
    return "";
}

static std::string expectation(const Parameter &parameter)
{
    const std::string range = range_text({parameter.least, parameter.most});
    switch (parameter.kind) {
    case ParameterKind::INTEGER:
        return "a whole number from " + range;
    case ParameterKind::NUMBER:
        return "a number from " + range;
    case ParameterKind::FLAG:
        return "true or false";
    case ParameterKind::TEXT:
        return "text of " + range + " characters";
    case ParameterKind::CHOICES:
        return "one or more of " + join(parameter.choices) + ", separated by commas";
    case ParameterKind::SIZE:
        return "WIDTHxHEIGHT, each from " + range;
    case ParameterKind::CODE:
        return "a whole number from " + range + ", also as \"0x...\"";
    }
    return "";
}

std::string parameter_refuse(const Parameter &parameter)
{
    return std::string(parameter.name) + ": expected " + expectation(parameter);
}

static bool in_range(const Parameter &parameter, double value)
{
    const bool whole = parameter.kind != ParameterKind::NUMBER;
    return value >= parameter.least && value <= parameter.most &&
           (!whole || value == std::floor(value));
}

static bool accept_number(const Parameter &parameter, std::optional<double> value, Values *values)
{
    if (!value || !in_range(parameter, *value))
        return false;
    values->number[parameter.name] = *value;
    return true;
}

static bool accept_size(const Parameter &parameter, std::string_view text, Values *values)
{
    const std::optional<Size> size = size_parse(text);
    if (!size || !in_range(parameter, size->width) || !in_range(parameter, size->height))
        return false;
    values->number[std::string(parameter.name) + "_width"] = size->width;
    values->number[std::string(parameter.name) + "_height"] = size->height;
    return true;
}

static bool are_choices(const Parameter &parameter, const std::string &text)
{
    std::vector<std::string> left = parameter.choices;
    for (size_t from = 0;;) {
        const size_t comma = text.find(',', from);
        if (std::erase(left, text.substr(from, comma - from)) == 0)
            return false;
        if (comma == std::string::npos)
            return true;
        from = comma + 1;
    }
}

bool parameter_accept_text(const Parameter &parameter, const std::string &text, Values *values)
{
    switch (parameter.kind) {
    case ParameterKind::INTEGER:
        return accept_number(parameter, read_unsigned(text, 10), values);
    case ParameterKind::NUMBER:
        return accept_number(parameter, read_number(text), values);
    case ParameterKind::FLAG:
        return accept_number(parameter, read_flag(text), values);
    case ParameterKind::CODE:
        return accept_number(parameter, read_code(text), values);
    case ParameterKind::SIZE:
        return accept_size(parameter, text, values);
    case ParameterKind::CHOICES:
        if (!are_choices(parameter, text))
            return false;
        break;
    case ParameterKind::TEXT: {
        const double length = static_cast<double>(text.size());
        if (length < parameter.least || length > parameter.most || text.find('\0') != text.npos)
            return false;
        break;
    }
    }
    values->text[parameter.name] = text;
    return true;
}

bool parameter_accept_field(const Parameter &parameter, const JsonField &field, Values *values)
{
    switch (parameter.kind) {
    case ParameterKind::INTEGER:
    case ParameterKind::NUMBER:
        return field.kind == JsonField::NUMBER && accept_number(parameter, field.number, values);
    case ParameterKind::FLAG:
        return field.kind == JsonField::FLAG && accept_number(parameter, field.number, values);
    case ParameterKind::CODE:
        if (field.kind == JsonField::NUMBER)
            return accept_number(parameter, field.number, values);
        break;
    case ParameterKind::TEXT:
    case ParameterKind::CHOICES:
    case ParameterKind::SIZE:
        break;
    }
    return field.kind == JsonField::TEXT && parameter_accept_text(parameter, field.text, values);
}

} // namespace simcam
