// Requests to routes and values.
#include "web/routing.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include <arpa/inet.h>
#include <strings.h>

#include "web/json.h"

namespace simcam
{

// ---- text ----

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Decodes percent-encoding; nothing for an invalid escape or a control character.
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

// Whether path matches the pattern; the parts in the places of braces go to captured, by name.
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

// ---- parameters ----

static RoutedRequest refuse(RoutedRequest routed, int status, const std::string &error)
{
    routed.status = status;
    routed.error = error;
    return routed;
}

static const Parameter *find_parameter(const Route &route, std::string_view name)
{
    for (const Parameter &parameter : route.text.parameters)
        if (name == parameter.name)
            return &parameter;
    return nullptr;
}

static bool is_in_path(const Route &route, const Parameter &parameter)
{
    return std::string(route.text.path).find("{" + std::string(parameter.name) + "}") !=
           std::string::npos;
}

static bool is_given(const Values &values, const Parameter &parameter)
{
    return values.has(parameter.name) || values.has(std::string(parameter.name) + "_width");
}

// The parameter of that name for a query or a body; null for one of the path and for an unknown
// one.
static const Parameter *find_free_parameter(const Route &route, std::string_view name)
{
    const Parameter *parameter = find_parameter(route, name);
    return parameter && !is_in_path(route, *parameter) ? parameter : nullptr;
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
        const Parameter *parameter = find_free_parameter(*routed.route, *name);
        if (!parameter)
            return refuse(std::move(routed), 400, "there is no parameter \"" + *name + "\"");
        if (is_given(routed.values, *parameter))
            return refuse(std::move(routed), 400, *name + " is given twice");
        if (!parameter_accept_text(*parameter, *value, &routed.values))
            return refuse(std::move(routed), 400, parameter_refuse(*parameter));
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
        const Parameter *parameter = find_free_parameter(*routed.route, field.name);
        if (!parameter)
            return refuse(std::move(routed), 400, "there is no parameter \"" + field.name + "\"");
        if (!parameter_accept_field(*parameter, field, &routed.values))
            return refuse(std::move(routed), 400, parameter_refuse(*parameter));
    }
    return routed;
}

static RoutedRequest take_fallbacks(RoutedRequest routed)
{
    for (const Parameter &parameter : routed.route->text.parameters) {
        if (is_given(routed.values, parameter))
            continue;
        if (!parameter.fallback)
            return refuse(std::move(routed), 400,
                          std::string(parameter.name) + " is missing: " + parameter.help);
        if (!parameter.fallback->empty())
            parameter_accept_text(parameter, *parameter.fallback, &routed.values);
    }
    return routed;
}

// ---- the request ----

using Captured = std::vector<std::pair<std::string, std::string>>;

// Finds the routes of the path: sets route to that of the method, and allow to all methods.
static Captured find_route(std::span<const Route> routes, const std::string &method,
                           RoutedRequest *routed)
{
    Captured captured;
    for (const Route &route : routes.subspan(1)) {
        Captured here;
        if (!path_matches(route.text.path, routed->path, &here))
            continue;
        routed->allow += (routed->allow.empty() ? "" : ", ") + std::string(route.text.method);
        if (std::string_view(route.text.method) == "GET")
            routed->allow += ", HEAD";
        if (method == route.text.method) {
            routed->route = &route;
            captured = std::move(here);
        }
    }
    if (routed->allow.empty() && routed->path.rfind("/api", 0) != 0) { // a file of the page
        routed->allow = "GET, HEAD";
        if (method == "GET")
            routed->route = &routes.front();
    }
    return captured;
}

// The bytes of "http://host:port" at the start of a target; 0 for a path.
static size_t origin_length(std::string_view target)
{
    constexpr std::string_view scheme = "http://";
    if (target.size() <= scheme.size() ||
        strncasecmp(target.data(), scheme.data(), scheme.size()) != 0)
        return 0;
    const size_t end = std::min(target.find_first_of("/?", scheme.size()), target.size());
    return end > scheme.size() ? end : 0;
}

RoutedRequest http_route(std::span<const Route> routes, const HttpRequest &request)
{
    RoutedRequest routed;
    routed.last_event_id = request.last_event_id;
    std::string_view target = request.target;
    const size_t origin = origin_length(target);
    target.remove_prefix(origin);
    const size_t mark = target.find('?');
    const std::string_view query =
        mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    const std::string_view path_text = target.substr(0, mark);
    const auto path = percent_decode(origin > 0 && path_text.empty() ? "/" : path_text, false);
    if (!path || path->empty() || path->front() != '/')
        return refuse(std::move(routed), 400, "the path is not percent-encoded text");
    routed.path = *path;

    const std::string method = request.method == "HEAD" ? "GET" : request.method;
    const Captured captured = find_route(routes, method, &routed);
    if (routed.allow.empty())
        return refuse(std::move(routed), 404, "there is nothing at " + *path + "; see /api");
    if (!routed.route) {
        const std::string error = "the methods of " + *path + " are " + routed.allow;
        return refuse(std::move(routed), 405, error);
    }
    if (routed.route == &routes.front())
        return routed; // the page ignores queries

    for (const auto &[name, value] : captured) {
        const Parameter *parameter = find_parameter(*routed.route, name);
        if (!parameter || !parameter_accept_text(*parameter, value, &routed.values))
            return refuse(std::move(routed), 404,
                          parameter ? parameter_refuse(*parameter) : "no parameter " + name);
    }
    routed = method == "POST" ? take_body(std::move(routed), request)
                              : take_query(std::move(routed), query);
    if (routed.status == 200 && method == "POST" && !query.empty())
        return refuse(std::move(routed), 400, "a POST takes its parameters from a JSON body");
    return routed.status == 200 ? take_fallbacks(std::move(routed)) : routed;
}

// ---- origin of requests ----

std::string http_target_host(const std::string &target)
{
    const size_t origin = origin_length(target);
    return origin > 0 ? target.substr(7, origin - 7) : "";
}

// Splits "name:port", "[::1]:port" or a name alone. Returns false for anything else.
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
