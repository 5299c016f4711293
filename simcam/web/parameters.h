// Parameters of requests: their kinds and bounds, and reading them from text or from JSON values.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace simcam
{

enum class ParameterKind {
    INTEGER, // least..most
    NUMBER,  // least..most
    FLAG,    // true or false; in a query also 1 or 0
    TEXT,    // least..most characters
    CHOICES, // names of choices, separated by commas; each at most once
    SIZE, // "1280x720", each side least..most; arrives as two numbers, NAME_width and NAME_height
    CODE, // least..most, also as text: "0x81E03204", or "forever" for 4294967295
};

struct Parameter {
    const char *name;
    ParameterKind kind;
    double least, most;
    // The value when it is not given, as in a query; empty: none. Without it the parameter is
    // required.
    std::optional<std::string> fallback;
    const char *help;
    std::vector<std::string> choices = {}; // of CHOICES; of TEXT: values with a special meaning
};

// What /api tells about a route. Parameters in braces of the path are part of the list.
struct RouteText {
    const char *method;
    const char *path;
    const char *answer; // content type
    const char *help;
    std::vector<Parameter> parameters;
    // What the warning for an exposed address says about it, "turn the lens"; null for GET. Routes
    // with the same words share a line.
    const char *allows = nullptr;
};

// The values of a request's parameters.
struct Values {
    std::map<std::string, double> number; // flags are 0 and 1
    std::map<std::string, std::string> text;

    bool has(const std::string &name) const;
    int integer(const std::string &name) const;
    bool flag(const std::string &name) const;
};

// A member of a flat JSON object.
struct JsonField {
    enum Kind { NUMBER, TEXT, FLAG, OTHER } kind = OTHER;
    std::string name;
    double number = 0; // also of a flag
    std::string text;
};

const char *parameter_kind_name(ParameterKind kind);
// "post: expected a whole number from 0 to 3"
std::string parameter_refuse(const Parameter &parameter);
// Both return false for a value that is not of the parameter's kind or not within its bounds.
bool parameter_accept_text(const Parameter &parameter, const std::string &text, Values *values);
bool parameter_accept_field(const Parameter &parameter, const JsonField &field, Values *values);

} // namespace simcam
