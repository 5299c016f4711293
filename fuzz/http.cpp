// A request to the web interface is either refused with a reason or gets a route with every
// parameter within its bounds. Conditions and ranges leave a part of the answer or nothing.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "web/json.h"
#include "web/routes.h"

using namespace simcam;

static void demand(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "%s\n", what);
        abort();
    }
}

// Returns the text up to the next line end.
static std::string take_line(std::string *text)
{
    const size_t end = text->find('\n');
    std::string line = text->substr(0, end);
    text->erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

static void check_number(const RoutedRequest &routed, const std::string &name,
                         const Parameter &parameter)
{
    const auto found = routed.values.number.find(name);
    if (found == routed.values.number.end())
        return;
    demand(found->second >= parameter.least && found->second <= parameter.most,
           "a parameter out of its bounds");
}

static void check_reduced(const Conditions &conditions)
{
    const std::string whole = "0123456789";
    Answer answer;
    answer.etag = "\"tag\"";
    answer.body = std::make_shared<const std::string>(whole);
    answer_reduce(conditions, &answer);
    const std::string &body = *answer.body;
    switch (answer.status) {
    case 200:
        demand(body == whole, "a whole answer without all of it");
        break;
    case 206:
        demand(!body.empty() && whole.find(body) != std::string::npos, "not a part of the answer");
        break;
    case 304:
        demand(body == whole, "not the length of the whole answer"); // only its headers are sent
        break;
    default:
        demand(answer.status == 416, "another status");
        demand(body.empty(), "a body where none belongs");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text((const char *)data, size);
    HttpRequest request;
    request.method = take_line(&text);
    request.target = take_line(&text);
    request.content_type = take_line(&text);
    const std::string host = take_line(&text);
    const std::string origin = take_line(&text);
    request.body = text;

    (void)http_host_is_ours(host, "camera");
    (void)http_origin_is_ours(origin, host);
    demand(http_target_host(request.target).size() < request.target.size() ||
               request.target.empty(),
           "a host longer than its target");
    check_reduced({"", host, ""}); // two lines of the input, as other headers
    check_reduced({origin, host, "\"tag\""});
    std::vector<JsonField> fields;
    std::string error;
    if (!json_read_object(request.body, &fields, &error))
        demand(!error.empty(), "a body refused without a reason");

    const RoutedRequest routed = http_route(http_routes(), request);
    if (routed.status != 200) {
        demand(routed.status >= 400 && routed.status < 500,
               "a refusal with a status outside 400..499");
        demand(!routed.error.empty(), "a refusal without a reason");
        (void)json_error(routed.status, routed.error);
        return 0;
    }
    demand(routed.route != nullptr, "accepted without a route");
    demand(routed.route->text.method == request.method || request.method == "HEAD",
           "a route with another method");
    for (const Parameter &parameter : routed.route->text.parameters) {
        const std::string name = parameter.name;
        if (parameter.kind == ParameterKind::SIZE) {
            check_number(routed, name + "_width", parameter);
            check_number(routed, name + "_height", parameter);
        } else if (parameter.kind != ParameterKind::TEXT &&
                   parameter.kind != ParameterKind::CHOICES) {
            check_number(routed, name, parameter);
        } else {
            const auto found = routed.values.text.find(name);
            demand(found == routed.values.text.end() ||
                       (double)found->second.size() <= 4 * parameter.most,
                   "a text longer than its bound");
        }
    }
    return 0;
}
