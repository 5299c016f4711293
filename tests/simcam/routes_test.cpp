// Finding routes and reading parameters, without sockets.
#include "web/routes.h"

#include <cctype>
#include <ostream>
#include <random>
#include <set>

#include <gmock/gmock.h>

#include "web/json.h"

using namespace simcam;
using testing::HasSubstr;

static RoutedRequest get(const std::string &target)
{
    return http_route(http_routes(), {"GET", target, "", ""});
}

static RoutedRequest post(const std::string &target, const std::string &body,
                          const std::string &type = "application/json")
{
    return http_route(http_routes(), {"POST", target, type, body});
}

TEST(HttpRoute, QueryValuesReplaceTheDefaults)
{
    const RoutedRequest r = get("/api/posts/2/stream.mjpeg?planes=0&width=640&fps=12.5");

    ASSERT_EQ(r.status, 200) << r.error;
    EXPECT_STREQ(r.route->text.path, "/api/posts/{post}/stream.mjpeg");
    EXPECT_EQ(r.values.number.at("post"), 2);
    EXPECT_EQ(r.values.number.at("planes"), 0);
    EXPECT_EQ(r.values.number.at("width"), 640);
    EXPECT_EQ(r.values.number.at("fps"), 12.5);
    EXPECT_EQ(r.values.number.at("quality"), 80);
}

TEST(HttpRoute, BodyMembersAreReadByType)
{
    const RoutedRequest r = post("/api/faults", R"({"call":"open","error":"0x81E03246",)"
                                                R"("remaining":"forever","delay_ms":250})");

    ASSERT_EQ(r.status, 200) << r.error;
    EXPECT_STREQ(r.route->text.path, "/api/faults");
    EXPECT_STREQ(r.route->text.method, "POST");
    EXPECT_EQ(r.values.text.at("call"), "open");
    EXPECT_EQ(r.values.number.at("error"), 2178953798.0);
    EXPECT_EQ(r.values.number.at("remaining"), 4294967295.0);
    EXPECT_EQ(r.values.number.at("delay_ms"), 250);
}

TEST(HttpRoute, SweepPeriodsAreThoseOfTheCommandLine)
{
    for (const double period_s : {0.5, 3600.0}) {
        const std::string body = R"({"on":true,"period_s":)" + std::to_string(period_s) + "}";

        const RoutedRequest r = post("/api/sweep", body);

        ASSERT_EQ(r.status, 200) << r.error;
        EXPECT_EQ(r.values.number.at("period_s"), period_s);
    }
}

TEST(HttpRoute, SizeBecomesTwoNumbers)
{
    const RoutedRequest r = post("/api/posts/0/start", R"({"size":"1920x1080"})");

    ASSERT_EQ(r.status, 200) << r.error;
    EXPECT_EQ(r.values.number.at("size_width"), 1920);
    EXPECT_EQ(r.values.number.at("size_height"), 1080);
}

TEST(HttpRoute, StartWithoutABodyNamesNoSize)
{
    const RoutedRequest r = post("/api/posts/0/start", "", "");

    ASSERT_EQ(r.status, 200) << r.error;
    EXPECT_EQ(r.values.number.count("size_width"), 0u);
}

TEST(HttpRoute, HeadIsReadAsGet)
{
    EXPECT_EQ(http_route(http_routes(), {"HEAD", "/api/state", "", ""}).status, 200);
}

TEST(HttpRoute, PercentEncodingIsUndone)
{
    const RoutedRequest r = get("/api/events?kinds=%73tate%2Ccall");

    ASSERT_EQ(r.status, 200) << r.error;
    EXPECT_EQ(r.values.text.at("kinds"), "state,call");
}

struct Refusal {
    const char *method, *target, *type, *body;
    int status;
    const char *says;
};

static void PrintTo(const Refusal &refusal, std::ostream *stream)
{
    *stream << refusal.status;
}

class HttpRouteRefuses : public testing::TestWithParam<Refusal>
{
};

TEST_P(HttpRouteRefuses, WithAStatusAndASentence)
{
    const Refusal &c = GetParam();

    const RoutedRequest r = http_route(http_routes(), {c.method, c.target, c.type, c.body});

    EXPECT_EQ(r.status, c.status) << c.method << " " << c.target << " " << c.body;
    EXPECT_THAT(r.error, HasSubstr(c.says));
}

static const char *const JSON = "application/json";

// "GET_api_posts_4_frame_png_from_0_to_3_3": the request, what the refusal says, the case's index.
static std::string case_name(const testing::TestParamInfo<Refusal> &info)
{
    const Refusal &c = info.param;
    std::string name;
    for (const char *part : {c.method, c.target, c.body, c.says}) {
        for (; *part; ++part) {
            if (std::isalnum(static_cast<unsigned char>(*part)))
                name += *part;
            else if (!name.empty() && name.back() != '_')
                name += '_';
        }
        if (name.back() != '_')
            name += '_';
    }
    return name + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(
    All, HttpRouteRefuses,
    testing::Values(
        Refusal{"GET", "/api/nothing", "", "", 404, "nothing at /api/nothing"},
        Refusal{"GET", "/apix", "", "", 404, "nothing"},
        Refusal{"GET", "/api/", "", "", 404, "nothing"},
        Refusal{"GET", "/api/posts/4/frame.png", "", "", 404, "from 0 to 3"},
        Refusal{"GET", "/api/posts/-1/frame.png", "", "", 404, "from 0 to 3"},
        Refusal{"GET", "/api/posts/1.5/frame.png", "", "", 404, "from 0 to 3"},
        Refusal{"GET", "/api/posts//frame.png", "", "", 404, "post"},
        Refusal{"GET", "", "", "", 400, "path"}, Refusal{"GET", "api/state", "", "", 400, "path"},
        Refusal{"GET", "/api/st%zzate", "", "", 400, "percent"},
        Refusal{"GET", "/api/state%0", "", "", 400, "percent"},
        Refusal{"GET", "/api/state%00", "", "", 400, "percent"},
        Refusal{"GET", "/api/state?x=1", "", "", 400, "no parameter \"x\""},
        Refusal{"GET", "/api/measurements?after=-1", "", "", 400, "after"},
        Refusal{"GET", "/api/measurements?limit=0", "", "", 400, "from 1 to 4096"},
        Refusal{"GET", "/api/measurements?limit=1e3", "", "", 400, "limit"},
        Refusal{"GET", "/api/measurements?after=%", "", "", 400, "percent"},
        Refusal{"GET", "/api/all/stream.mjpeg?fps=nan", "", "", 400, "fps"},
        Refusal{"GET", "/api/all/stream.mjpeg?fps=inf", "", "", 400, "fps"},
        Refusal{"GET", "/api/all/stream.mjpeg?quality=101", "", "", 400, "from 10 to 100"},
        Refusal{"GET", "/api/all/frame.png?planes=maybe", "", "", 400, "true or false"},
        Refusal{"GET", "/api/posts/1/frame.png?post=2", "", "", 400, "no parameter"},
        Refusal{"PUT", "/api/ring", JSON, "{}", 405, "are POST"},
        Refusal{"GET", "/api/ring", "", "", 405, "are POST"},
        Refusal{"POST", "/api/state", JSON, "{}", 405, "are GET"},
        Refusal{"POST", "/", JSON, "{}", 405, "GET, HEAD"},
        Refusal{"PATCH", "/api/faults", JSON, "{}", 405, "GET, HEAD, POST, DELETE"},
        Refusal{"POST", "/api/ring", "text/plain", "{\"ring\":0.5}", 415, "application/json"},
        Refusal{"POST", "/api/ring", "", "{\"ring\":0.5}", 415, "application/json"},
        Refusal{"POST", "/api/ring", JSON, "", 400, "ring is missing"},
        Refusal{"POST", "/api/ring", JSON, "{", 400, "not JSON"},
        Refusal{"POST", "/api/ring", JSON, "[0.5]", 400, "object"},
        Refusal{"POST", "/api/ring", JSON, "0.5", 400, "object"},
        Refusal{"POST", "/api/ring", JSON, "{}", 400, "ring is missing"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":\"0.5\"}", 400, "a number from 0 to 1"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":1.01}", 400, "a number from 0 to 1"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":-0.01}", 400, "a number from 0 to 1"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":null}", 400, "a number"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":[0.5]}", 400, "a number"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":1e999}", 400, ""},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":0.5,\"rang\":1}", 400, "no parameter"},
        Refusal{"POST", "/api/ring", JSON, "{\"ring\":0.1,\"ring\":0.2}", 400,
                "ring is given twice"},
        Refusal{"GET", "/api/measurements?after=1&after=1", "", "", 400, "after is given twice"},
        Refusal{"POST", "/api/posts/1/start", JSON, "{\"size\":\"16x16\",\"size\":\"16x16\"}", 400,
                "size is given twice"},
        Refusal{"GET", "/api/events?kinds=", "", "", 400, "state, measurement, output, call"},
        Refusal{"GET", "/api/events?kinds=state,", "", "", 400, "separated by commas"},
        Refusal{"GET", "/api/events?kinds=state,state", "", "", 400, "one or more of"},
        Refusal{"GET", "/api/events?kinds=states", "", "", 400, "one or more of"},
        Refusal{"POST", "/api/ring?ring=0.5", JSON, "{\"ring\":0.5}", 400, "JSON body"},
        Refusal{"POST", "/api/sweep", JSON, "{\"on\":1}", 400, "true or false"},
        Refusal{"POST", "/api/sweep", JSON, "{\"on\":true,\"period_s\":0.4}", 400,
                "from 0.5 to 3600"},
        Refusal{"POST", "/api/sweep", JSON, "{\"on\":true,\"period_s\":3601}", 400,
                "from 0.5 to 3600"},
        Refusal{"POST", "/api/gain", JSON, "{\"gain\":9}", 400, "from 0.1 to 8"},
        Refusal{"POST", "/api/noise", JSON, "{\"noise\":17}", 400, "from 0 to 16"},
        Refusal{"POST", "/api/scene", JSON, "{\"scene\":\"\"}", 400, "characters"},
        Refusal{"POST", "/api/scene", JSON, "{\"scene\":\"a\\u0000b\"}", 400, "characters"},
        Refusal{"POST", "/api/posts/1/start", JSON, "{\"size\":\"1280\"}", 400, "WIDTHxHEIGHT"},
        Refusal{"POST", "/api/posts/1/start", JSON, "{\"size\":\"15x720\"}", 400,
                "from 16 to 4096"},
        Refusal{"POST", "/api/posts/1/start", JSON, "{\"size\":\"16x4097\"}", 400,
                "from 16 to 4096"},
        Refusal{"POST", "/api/posts/1/start", JSON, "{\"size\":\"1x2x3\"}", 400, "WIDTHxHEIGHT"},
        Refusal{"POST", "/api/posts/1/start", JSON, "{\"post\":2}", 400, "no parameter"},
        Refusal{"POST", "/api/faults", JSON, "{\"error\":1}", 400, "call is missing"},
        Refusal{"POST", "/api/faults", JSON, "{\"call\":\"open\",\"error\":4294967296}", 400,
                "error"},
        Refusal{"POST", "/api/faults", JSON, "{\"call\":\"open\",\"error\":\"0x\"}", 400, "error"},
        Refusal{"POST", "/api/faults", JSON, "{\"call\":\"open\",\"error\":\"0x1G\"}", 400,
                "error"},
        Refusal{"POST", "/api/faults", JSON, "{\"call\":\"open\",\"remaining\":1.5}", 400,
                "remaining"}),
    case_name);

TEST(HttpRoute, DeepNestingIsRefusedWithoutACrash)
{
    const std::string deep(8000, '[');

    EXPECT_EQ(post("/api/ring", deep).status, 400);
    EXPECT_EQ(post("/api/ring", "{\"ring\":" + deep + std::string(8000, ']') + "}").status, 400);
}

// Valid requests with random bytes changed: each result is a route with all its parameters or a
// refusal with a sentence.
TEST(HttpRoute, RandomBytesAreRoutedOrRefused)
{
    std::mt19937 random(7);
    const std::vector<HttpRequest> seeds = {
        {"GET", "/api/posts/2/stream.mjpeg?planes=0&width=640&fps=12.5", "", ""},
        {"POST", "/api/faults", JSON, R"({"call":"open","error":"0x81E03246","remaining":1})"},
        {"POST", "/api/posts/0/start", JSON, R"({"size":"1920x1080"})"},
        {"DELETE", "/api/faults?x", "", ""},
        {"GET", "http://localhost/snapshot?post=1", "", ""},
    };
    for (int round = 0; round < 20000; ++round) {
        HttpRequest request = seeds[random() % seeds.size()];
        for (auto changes = random() % 5; changes > 0; --changes) {
            std::string &part = random() % 2 ? request.target : request.body;
            if (!part.empty())
                part[random() % part.size()] = static_cast<char>(random() % 256);
        }

        const RoutedRequest r = http_route(http_routes(), request);

        if (r.status != 200) {
            EXPECT_GE(r.status, 400);
            EXPECT_LT(r.status, 500);
            EXPECT_FALSE(r.error.empty());
            continue;
        }
        ASSERT_NE(r.route, nullptr);
        for (const Parameter &parameter : r.route->text.parameters) {
            const std::string name = parameter.name;
            const bool given = r.values.number.count(name) || r.values.text.count(name) ||
                               r.values.number.count(name + "_width");
            EXPECT_TRUE(given || (parameter.fallback && parameter.fallback->empty())) << name;
        }
    }
}

TEST(HttpRoutes, EveryMethodOfAPathHasOneRoute)
{
    std::set<std::string> lines;
    for (const Route &route : http_routes())
        EXPECT_TRUE(lines.insert(std::string(route.text.method) + " " + route.text.path).second);
    EXPECT_STREQ(http_routes().front().text.path, "/") << "the page is the first one";
}

TEST(HttpRoutes, OnlyRoutesThatChangeSomethingSayWhatTheyAllow)
{
    for (const Route &route : http_routes())
        EXPECT_EQ(route.text.allows == nullptr, route.text.method == std::string("GET"))
            << route.text.path;
}

TEST(HttpHost, OnlyNamesOfThisServerAreAccepted)
{
    for (const char *ours : {"127.0.0.1:8080", "127.0.0.1", "localhost:9000", "LocalHost",
                             "[::1]:8080", "[::1]", "192.168.1.5:80", "bench7:8080", "BENCH7"})
        EXPECT_TRUE(http_host_is_ours(ours, "bench7")) << ours;
    for (const char *other :
         {"", ":8080", "example.org", "example.org:8080", "127.0.0.1.example.org",
          "localhost:", "localhost:80x", "localhost:808080", "localhost.example.org:8080", "[::1",
          "[]:80", "[::1]x", "127.0.0.1:8080 ", "user@127.0.0.1"})
        EXPECT_FALSE(http_host_is_ours(other, "bench7")) << other;
    EXPECT_FALSE(http_host_is_ours("", "")) << "a machine without a name";
}

TEST(HttpHost, ATargetInAbsoluteFormNamesIt)
{
    EXPECT_EQ(http_target_host("http://bench7:8080/api?a=1"), "bench7:8080");
    EXPECT_EQ(http_target_host("HTTP://[::1]:80"), "[::1]:80");
    EXPECT_EQ(http_target_host("http://a?b/c"), "a");
    for (const char *path : {"", "/", "/api/state", "/http://a/", "http:/a/", "http://", "http:///",
                             "http://?a", "https://a/", "*"})
        EXPECT_EQ(http_target_host(path), "") << path;
}

TEST(HttpRoute, TheHostOfATargetIsNoPartOfItsPath)
{
    const RoutedRequest r = get("http://localhost:80/api/measurements?after=7");

    ASSERT_EQ(r.status, 200) << r.error;
    EXPECT_EQ(r.path, "/api/measurements");
    EXPECT_EQ(r.values.number.at("after"), 7);
    EXPECT_EQ(get("http://localhost").path, "/");
    EXPECT_EQ(get("http://localhost?x").path, "/");
    EXPECT_EQ(get("http:///api").status, 400);
}

TEST(HttpOrigin, OnlyTheAddressOfThePageIsAccepted)
{
    EXPECT_TRUE(http_origin_is_ours("http://127.0.0.1:8080", "127.0.0.1:8080"));
    for (const char *other : {"http://127.0.0.1:8081", "https://127.0.0.1:8080", "null",
                              "http://example.org", "http://127.0.0.1", "http://localhost:8080"})
        EXPECT_FALSE(http_origin_is_ours(other, "127.0.0.1:8080")) << other;
}

TEST(HttpJson, InvalidUtf8IsReplaced)
{
    EXPECT_EQ(json_output({3, 0.5, 2, "a\xFF\"\n"}),
              "{\"number\":3,\"stream\":2,\"text\":\"a\xEF\xBF\xBD\\\"\\n\",\"time_s\":0.5}");
}

TEST(HttpJson, ErrorsAreObjects)
{
    EXPECT_EQ(json_error(404, "no \"x\""), R"({"error":"no \"x\"","status":404})");
    EXPECT_EQ(json_hello("17"), R"({"session":"17"})");
}
