// The reading of requests into checked parameters.
#include "web/http_route.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

#include <arpa/inet.h>
#include <strings.h>

#include "board/limits.h"
#include "web/http_json.h"

namespace simcam
{

// ---- text to values ----

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Undoes percent-encoding; nothing for a broken escape or a control character.
static std::optional<std::string> percent_decode(std::string_view in, bool plus_is_space)
{
    std::string out;
    out.reserve(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        char c = in[i];
        if (c == '%') {
            if (in.size() - i < 3 || hex_digit(in[i + 1]) < 0 || hex_digit(in[i + 2]) < 0)
                return std::nullopt;
            c = static_cast<char>(hex_digit(in[i + 1]) * 16 + hex_digit(in[i + 2]));
            i += 2;
        } else if (c == '+' && plus_is_space) {
            c = ' ';
        }
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return std::nullopt;
        out.push_back(c);
    }
    return out;
}

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
        return 4294967295.0;
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

static std::string plain(double value)
{
    char text[32];
    const auto [end, code] = std::to_chars(text, text + sizeof text, value);
    return code == std::errc() ? std::string(text, end) : std::string("?");
}

static std::string expectation(const RouteParameter &parameter)
{
    const std::string range = plain(parameter.least) + " to " + plain(parameter.most);
    switch (parameter.kind) {
    case ParameterKind::INTEGER:
        return "a whole number from " + range;
    case ParameterKind::NUMBER:
        return "a number from " + range;
    case ParameterKind::FLAG:
        return "true or false";
    case ParameterKind::TEXT:
        return "text of " + range + " characters";
    case ParameterKind::SIZE:
        return "WIDTHxHEIGHT, each from " + range;
    case ParameterKind::CODE:
        return "a whole number from " + range + ", also as \"0x...\"";
    }
    return "something else";
}

static bool in_range(const RouteParameter &parameter, double value)
{
    const bool whole = parameter.kind != ParameterKind::NUMBER;
    return value >= parameter.least && value <= parameter.most &&
           (!whole || value == std::floor(value));
}

static bool accept_number(const RouteParameter &parameter, std::optional<double> value,
                          RoutedRequest *routed)
{
    if (!value || !in_range(parameter, *value))
        return false;
    routed->number[parameter.name] = *value;
    return true;
}

static bool accept_size(const RouteParameter &parameter, std::string_view text,
                        RoutedRequest *routed)
{
    const std::optional<Size> size = size_parse(text);
    if (!size || !in_range(parameter, size->width) || !in_range(parameter, size->height))
        return false;
    routed->number[std::string(parameter.name) + "_width"] = size->width;
    routed->number[std::string(parameter.name) + "_height"] = size->height;
    return true;
}

// Takes a value written as text, as in a path or a query.
static bool accept_text(const RouteParameter &parameter, const std::string &text,
                        RoutedRequest *routed)
{
    switch (parameter.kind) {
    case ParameterKind::INTEGER:
        return accept_number(parameter, read_unsigned(text, 10), routed);
    case ParameterKind::NUMBER:
        return accept_number(parameter, read_number(text), routed);
    case ParameterKind::FLAG:
        return accept_number(parameter, read_flag(text), routed);
    case ParameterKind::CODE:
        return accept_number(parameter, read_code(text), routed);
    case ParameterKind::SIZE:
        return accept_size(parameter, text, routed);
    case ParameterKind::TEXT:
        break;
    }
    const double length = static_cast<double>(text.size());
    if (length < parameter.least || length > parameter.most || text.find('\0') != text.npos)
        return false;
    routed->text[parameter.name] = text;
    return true;
}

// Takes a member of a JSON body, where every kind has its own type.
static bool accept_field(const RouteParameter &parameter, const JsonField &field,
                         RoutedRequest *routed)
{
    switch (parameter.kind) {
    case ParameterKind::INTEGER:
    case ParameterKind::NUMBER:
        return field.kind == JsonField::NUMBER && accept_number(parameter, field.number, routed);
    case ParameterKind::FLAG:
        return field.kind == JsonField::FLAG && accept_number(parameter, field.number, routed);
    case ParameterKind::CODE:
        if (field.kind == JsonField::NUMBER)
            return accept_number(parameter, field.number, routed);
        break;
    case ParameterKind::TEXT:
    case ParameterKind::SIZE:
        break;
    }
    return field.kind == JsonField::TEXT && accept_text(parameter, field.text, routed);
}

// ---- the request ----

static RoutedRequest refuse(RoutedRequest routed, int status, const std::string &error)
{
    routed.status = status;
    routed.error = error;
    return routed;
}

static const RouteParameter *find_parameter(const Route &route, std::string_view name)
{
    for (const RouteParameter &parameter : route.parameters) {
        if (name == parameter.name)
            return &parameter;
    }
    return nullptr;
}

static bool is_in_path(const Route &route, const RouteParameter &parameter)
{
    return std::string(route.path).find("{" + std::string(parameter.name) + "}") !=
           std::string::npos;
}

static std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t at = text.find(separator);
        parts.push_back(text.substr(0, at));
        if (at == std::string_view::npos)
            return parts;
        text.remove_prefix(at + 1);
    }
}

// Whether path is one of the pattern; what stands in the braces' places goes to captured, by name.
static bool path_matches(std::string_view pattern, std::string_view path,
                         std::vector<std::pair<std::string, std::string>> *captured)
{
    const std::vector<std::string_view> wanted = split(pattern, '/');
    const std::vector<std::string_view> parts = split(path, '/');
    if (wanted.size() != parts.size())
        return false;
    captured->clear();
    for (size_t i = 0; i < wanted.size(); ++i) {
        if (!wanted[i].empty() && wanted[i].front() == '{')
            captured->emplace_back(wanted[i].substr(1, wanted[i].size() - 2), parts[i]);
        else if (wanted[i] != parts[i])
            return false;
    }
    return true;
}

static std::string bad_value(const RouteParameter &parameter)
{
    return std::string(parameter.name) + ": expected " + expectation(parameter);
}

static RoutedRequest take_query(RoutedRequest routed, std::string_view query)
{
    if (query.empty())
        return routed;
    for (std::string_view pair : split(query, '&')) {
        const size_t equals = pair.find('=');
        const auto name = percent_decode(pair.substr(0, equals), true);
        const auto value = percent_decode(
            equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1), true);
        if (!name || !value)
            return refuse(std::move(routed), 400, "the query is not percent-encoded text");
        const RouteParameter *parameter = find_parameter(*routed.route, *name);
        if (!parameter || is_in_path(*routed.route, *parameter))
            return refuse(std::move(routed), 400, "there is no parameter \"" + *name + "\"");
        if (!accept_text(*parameter, *value, &routed))
            return refuse(std::move(routed), 400, bad_value(*parameter));
    }
    return routed;
}

static bool is_json_type(const std::string &content_type)
{
    const std::string type = content_type.substr(0, content_type.find_first_of("; "));
    return strcasecmp(type.c_str(), "application/json") == 0;
}

static RoutedRequest take_body(RoutedRequest routed, const HttpRequest &request)
{
    if (request.body.empty())
        return routed;
    if (!is_json_type(request.content_type))
        return refuse(std::move(routed), 415, "the body must be application/json");
    std::vector<JsonField> fields;
    std::string error;
    if (!json_read_object(request.body, &fields, &error))
        return refuse(std::move(routed), 400, error);
    for (const JsonField &field : fields) {
        const RouteParameter *parameter = find_parameter(*routed.route, field.name);
        if (!parameter || is_in_path(*routed.route, *parameter))
            return refuse(std::move(routed), 400, "there is no parameter \"" + field.name + "\"");
        if (!accept_field(*parameter, field, &routed))
            return refuse(std::move(routed), 400, bad_value(*parameter));
    }
    return routed;
}

static RoutedRequest take_fallbacks(RoutedRequest routed)
{
    for (const RouteParameter &parameter : routed.route->parameters) {
        const std::string name = parameter.name;
        if (routed.number.count(name) || routed.text.count(name) ||
            routed.number.count(name + "_width"))
            continue;
        if (!parameter.fallback)
            return refuse(std::move(routed), 400, name + " is missing: " + parameter.help);
        if (*parameter.fallback)
            accept_text(parameter, parameter.fallback, &routed);
    }
    return routed;
}

RoutedRequest http_route(const HttpRequest &request)
{
    RoutedRequest routed;
    const std::string_view target = request.target;
    const size_t mark = target.find('?');
    const std::string_view query =
        mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    const auto path = percent_decode(target.substr(0, mark), false);
    if (!path || path->empty() || path->front() != '/')
        return refuse(std::move(routed), 400, "the path is not percent-encoded text");
    routed.path = *path;

    const std::string method = request.method == "HEAD" ? "GET" : request.method;
    if (path->rfind("/api", 0) != 0) {
        routed.route = &http_routes().front();
        if (method != "GET") {
            routed.allow = "GET, HEAD";
            return refuse(std::move(routed), 405, "the page can only be read");
        }
        return routed;
    }

    std::vector<std::pair<std::string, std::string>> captured;
    for (const Route &route : http_routes()) {
        std::vector<std::pair<std::string, std::string>> here;
        if (!path_matches(route.path, *path, &here))
            continue;
        routed.allow += (routed.allow.empty() ? "" : ", ") + std::string(route.method);
        if (method == route.method) {
            routed.route = &route;
            captured = std::move(here);
        }
    }
    if (routed.allow.empty())
        return refuse(std::move(routed), 404, "there is nothing at " + *path + "; see /api");
    if (!routed.route) {
        const std::string why = "only " + routed.allow + " here";
        return refuse(std::move(routed), 405, why);
    }

    for (const auto &[name, value] : captured) {
        const RouteParameter *parameter = find_parameter(*routed.route, name);
        if (!parameter || !accept_text(*parameter, value, &routed))
            return refuse(std::move(routed), 404,
                          parameter ? bad_value(*parameter) : "no parameter " + name);
    }
    routed = method == "POST" ? take_body(std::move(routed), request)
                              : take_query(std::move(routed), query);
    if (routed.status == 200 && method == "POST" && !query.empty())
        return refuse(std::move(routed), 400, "parameters of a POST go into its body, as JSON");
    return routed.status == 200 ? take_fallbacks(std::move(routed)) : routed;
}

// ---- who asks ----

// Splits "name:port", "[::1]:port" or a name alone. False where that is no host.
static bool split_host(const std::string &host, std::string *name)
{
    size_t end = 0;
    if (!host.empty() && host.front() == '[') {
        end = host.find(']');
        if (end == std::string::npos)
            return false;
        *name = host.substr(1, end - 1);
        ++end;
    } else {
        end = std::min(host.find(':'), host.size());
        *name = host.substr(0, end);
    }
    if (name->empty())
        return false;
    if (end == host.size())
        return true;
    const std::string port = host.substr(end);
    return port.size() >= 2 && port.size() <= 6 && port[0] == ':' &&
           std::all_of(port.begin() + 1, port.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool http_host_is_ours(const std::string &host, const std::string &machine_name)
{
    std::string name;
    if (!split_host(host, &name))
        return false;
    unsigned char address[16];
    if (inet_pton(AF_INET, name.c_str(), address) == 1 ||
        inet_pton(AF_INET6, name.c_str(), address) == 1)
        return true;
    return strcasecmp(name.c_str(), "localhost") == 0 ||
           (!machine_name.empty() && strcasecmp(name.c_str(), machine_name.c_str()) == 0);
}

bool http_origin_is_ours(const std::string &origin, const std::string &host)
{
    return strcasecmp(origin.c_str(), ("http://" + host).c_str()) == 0;
}

} // namespace simcam
