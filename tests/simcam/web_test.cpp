// The server over real sockets, with the fake camera.
#include "web/server.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <opencv2/imgcodecs.hpp>

#include "fake_camera.h"
#include "web/listen.h"
#include "web/routes.h"

using namespace simcam;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// ---- a client that sends exactly the given bytes ----

struct Response {
    int status = 0;
    std::map<std::string, std::string> header; // names in lower case
    std::string body;
};

static std::string lower(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(tolower(c));
    return text;
}

class Client
{
  public:
    // receive_bytes: size of the socket's receive buffer; 0 for the system's default.
    explicit Client(int port, int receive_bytes = 0)
    {
        socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receive_bytes > 0)
            setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client()
    {
        hang_up();
    }

    void hang_up()
    {
        if (socket_ >= 0)
            close(socket_);
        socket_ = -1;
    }
    bool connected() const
    {
        return connected_;
    }
    bool closed() const // as reading saw
    {
        return closed_;
    }
    void send_bytes(const std::string &bytes)
    {
        (void)!send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    // Reads until done, given everything read so far, returns true, the server closes, or ten
    // seconds have passed.
    const std::string &read_until(const std::function<bool(const std::string &)> &done)
    {
        char buffer[65536];
        while (!done(read_)) {
            pollfd waiting = {socket_, POLLIN, 0};
            if (poll(&waiting, 1, 10000) <= 0)
                break;
            const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
            closed_ = count <= 0;
            if (closed_)
                break;
            read_.append(buffer, static_cast<size_t>(count));
        }
        return read_;
    }
    const std::string &read_until_contains(const std::string &text)
    {
        return read_until([&](const std::string &all) { return all.find(text) != all.npos; });
    }
    const std::string &read_all()
    {
        return read_until([](const std::string &) { return false; });
    }

  private:
    int socket_ = -1;
    bool connected_ = false;
    bool closed_ = false;
    std::string read_;
};

static Response parse_answer(const std::string &text)
{
    Response answer;
    const size_t end = text.find("\r\n\r\n");
    if (text.rfind("HTTP/1.1 ", 0) != 0 || end == std::string::npos)
        return answer;
    answer.status = std::stoi(text.substr(9, 3));
    for (size_t line = text.find("\r\n"); line < end;) {
        line += 2;
        const size_t next = text.find("\r\n", line);
        const size_t colon = text.find(": ", line);
        if (colon < next)
            answer.header[lower(text.substr(line, colon - line))] =
                text.substr(colon + 2, next - colon - 2);
        line = next;
    }
    answer.body = text.substr(end + 4);
    return answer;
}

// What a page links to on its own server.
static std::vector<std::string> links_of(const std::string &html)
{
    std::vector<std::string> links;
    for (const std::string attribute : {"src=\"", "href=\""}) {
        for (size_t at = 0; (at = html.find(attribute + "/", at)) != html.npos;) {
            at += attribute.size();
            links.push_back(html.substr(at, html.find('"', at) - at));
        }
    }
    return links;
}

// "/posts/{post}/stop" as "/posts/0/stop".
static std::string with_zeros(std::string path)
{
    for (size_t at = 0; (at = path.find('{')) != path.npos;)
        path.replace(at, path.find('}') + 1 - at, "0");
    return path;
}

class Http : public testing::Test
{
  protected:
    void SetUp() override
    {
        CameraOptions options;
        options.post_size[0] = "1280x720";
        options.post_size[1] = "720x576";
        options.program = {"focus_assist"};
        std::string error;
        camera_ = camera_start(options, &error);
        start_server(HTTP_IDLE_S);
    }

    void start_server(unsigned idle_s)
    {
        std::string error;
        server_ = http_start(*camera_, "127.0.0.1:0", &error, idle_s);
        ASSERT_NE(server_, nullptr) << error;
        const std::string address = http_address(*server_);
        ASSERT_THAT(address, testing::MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/"));
        port_ = std::stoi(address.substr(17));
        host_ = "127.0.0.1:" + std::to_string(port_);
    }

    std::string head(const std::string &method, const std::string &target,
                     const std::string &more = "") const
    {
        return method + " " + target + " HTTP/1.1\r\nHost: " + host_ + "\r\nConnection: close\r\n" +
               more + "\r\n";
    }
    Response ask(const std::string &method, const std::string &target, const std::string &more = "")
    {
        Client client(port_);
        client.send_bytes(head(method, target, more));
        return parse_answer(client.read_all());
    }
    Response get(const std::string &target)
    {
        return ask("GET", target);
    }
    Response post(const std::string &target, const std::string &body)
    {
        Client client(port_);
        client.send_bytes(head("POST", target,
                               "Content-Type: application/json\r\nContent-Length: " +
                                   std::to_string(body.size()) + "\r\n") +
                          body);
        return parse_answer(client.read_all());
    }

    CameraPtr camera_;
    HttpServerPtr server_;
    int port_ = 0;
    std::string host_;
};

// ---- reading ----

TEST_F(Http, PageAndItsPartsAreServed)
{
    const Response page = get("/");

    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.header.at("content-type"), "text/html; charset=utf-8");
    EXPECT_THAT(page.header.at("content-security-policy"), HasSubstr("default-src 'self'"));
    const std::vector<std::string> links = links_of(page.body);
    EXPECT_THAT(links, testing::IsSupersetOf({"/style.css", "/app.js", "/icon.svg"}));
    for (const std::string &link : links)
        EXPECT_EQ(get(link).status, 200) << link;
    EXPECT_EQ(get("/no.js").status, 404);
}

TEST_F(Http, AnUnchangedFileOfThePageIsNotSentAgain)
{
    const Response first = get("/app.js");
    const std::string tag = first.header.at("etag");
    ASSERT_THAT(tag, testing::MatchesRegex("\"[0-9a-f]+\""));
    EXPECT_EQ(first.header.at("cache-control"), "no-cache");
    EXPECT_NE(get("/style.css").header.at("etag"), tag);

    const std::string others = "\"1\", W/\"2\" ,";
    for (const std::string &known : {tag, "W/" + tag, others + " " + tag, others + tag, "*"s}) {
        const Response answer = ask("GET", "/app.js", "If-None-Match: " + known + "\r\n");
        EXPECT_EQ(answer.status, 304) << known;
        EXPECT_EQ(answer.body, "") << known;
        if (answer.header.contains("content-length")) { // then it is that of the whole file
            EXPECT_EQ(answer.header.at("content-length"), std::to_string(first.body.size()));
        }
        EXPECT_EQ(answer.header.at("etag"), tag) << known;
    }
    for (const std::string &other : {"\"1\""s, others, tag.substr(1), tag + "x", ""s}) {
        const Response answer = ask("GET", "/app.js", "If-None-Match: " + other + "\r\n");
        EXPECT_EQ(answer.status, 200) << other;
        EXPECT_EQ(answer.body, first.body) << other;
    }
    EXPECT_EQ(get("/api/state").header.count("etag"), 0u) << "differs from request to request";
}

TEST_F(Http, AnAnswerThatIsNotSentAgainKeepsTheConnection)
{
    const std::string tag = get("/icon.svg").header.at("etag");
    Client client(port_);
    client.send_bytes("GET /icon.svg HTTP/1.1\r\nHost: " + host_ + "\r\nIf-None-Match: " + tag +
                      "\r\n\r\n" + head("GET", "/api/process"));

    const std::string both = client.read_all();

    EXPECT_EQ(parse_answer(both).status, 304);
    EXPECT_EQ(parse_answer(parse_answer(both).body).status, 200);
}

TEST_F(Http, ARangeOfAFileOfThePageIsSent)
{
    const Response file = get("/style.css");
    EXPECT_EQ(file.header.at("accept-ranges"), "bytes");
    const std::string &all = file.body;
    const std::string size = std::to_string(all.size());
    const std::string last = std::to_string(all.size() - 1);
    const auto range = [&](const std::string &value, const std::string &more = "") {
        return ask("GET", "/style.css", "Range: " + value + "\r\n" + more);
    };

    const struct {
        std::string range, content_range, body;
    } parts[] = {
        {"bytes=0-0", "bytes 0-0/" + size, all.substr(0, 1)},
        {"Bytes=0-1", "bytes 0-1/" + size, all.substr(0, 2)},
        {"bytes=10-19", "bytes 10-19/" + size, all.substr(10, 10)},
        {"bytes=100-", "bytes 100-" + last + "/" + size, all.substr(100)},
        {"bytes=" + last + "-99999999", "bytes " + last + "-" + last + "/" + size,
         all.substr(all.size() - 1)},
        {"bytes=-1", "bytes " + last + "-" + last + "/" + size, all.substr(all.size() - 1)},
        {"bytes=-99999999", "bytes 0-" + last + "/" + size, all},
    };
    for (const auto &[value, content_range, body] : parts) {
        const Response answer = range(value);
        EXPECT_EQ(answer.status, 206) << value;
        EXPECT_EQ(answer.header.at("content-range"), content_range) << value;
        EXPECT_EQ(answer.body, body) << value;
    }
    for (const std::string &value :
         {"bytes=" + size + "-", "bytes=" + size + "-" + size + "9", "bytes=-0"s}) {
        const Response answer = range(value);
        EXPECT_EQ(answer.status, 416) << value;
        EXPECT_EQ(answer.header.at("content-range"), "bytes */" + size) << value;
        EXPECT_EQ(answer.body, "") << value;
    }
    for (const char *value : {"bytes=", "bytes=-", "bytes=2-1", "bytes=a-b", "bytes=1", "lines=0-1",
                              "bytes=0-1,4-5", "bytes", "bytes=+1-2", "bytes=1-2x", "bytes=--1"}) {
        const Response answer = range(value);
        EXPECT_EQ(answer.status, 200) << value;
        EXPECT_EQ(answer.body, all) << value;
    }
    const std::string tag = file.header.at("etag");
    EXPECT_EQ(range("bytes=0-3", "If-Range: " + tag + "\r\n").status, 206);
    EXPECT_EQ(range("bytes=0-3", "If-Range: \"1\"\r\n").body, all);
    EXPECT_EQ(ask("HEAD", "/style.css", "Range: bytes=0-3\r\n").status, 200);
    EXPECT_EQ(ask("GET", "/api/palette/raw", "Range: bytes=0-3\r\n").body.size(), 1024u);
}

TEST_F(Http, ApiListsEveryRoute)
{
    const Response list = get("/api");

    EXPECT_EQ(list.status, 200);
    EXPECT_EQ(list.header.at("content-type"), "application/json");
    EXPECT_THAT(list.body, HasSubstr("\"api_version\":1,"));
    for (const Route &route : http_routes())
        EXPECT_THAT(list.body, HasSubstr("\"path\":\"" + std::string(route.text.path) + "\""));
}

TEST_F(Http, TheStateIsThatOfTheCamera)
{
    CameraState state = camera_state(*camera_);
    state.merged_reports = 7;
    state.measured_rate_hz = 29.5;
    state.run_directory = "/run/here";
    state.focus_configured = true;
    fake_set_state(*camera_, state);

    const auto answer = nlohmann::json::parse(get("/api/state").body);

    EXPECT_EQ(answer.at("merged_reports"), 7);
    EXPECT_EQ(answer.at("measured_rate_hz"), 29.5);
    EXPECT_EQ(answer.at("run_directory"), "/run/here");
    EXPECT_EQ(answer.at("focus_configured"), true);
}

// Every GET of the table answers with the type of its row; of streams only the beginning is read.
TEST_F(Http, EveryGetRouteAnswers)
{
    PlaneState plane;
    plane.open = plane.shown = true;
    plane.width = plane.pitch = 4;
    plane.height = 1;
    plane.depth_code = 2;
    fake_show(*camera_, 0, 0, plane, {11, 18, 17, 11});
    for (const Route &route : http_routes()) {
        if (std::string(route.text.method) != "GET")
            continue;
        const std::string target = with_zeros(route.text.path);
        Client client(port_);
        client.send_bytes(head("GET", target));

        const Response answer = parse_answer(client.read_until_contains("\r\n\r\n"));

        EXPECT_EQ(answer.status, 200) << target;
        EXPECT_THAT(answer.header.at("content-type"), StartsWith(route.text.answer)) << target;
    }
}

TEST_F(Http, StateDescribesTheCamera)
{
    fake_measure(*camera_, 321);

    const Response state = get("/api/state");

    EXPECT_THAT(state.body, HasSubstr("\"raw\":32100"));
    EXPECT_THAT(state.body, HasSubstr("\"width\":720"));
    EXPECT_THAT(state.body, HasSubstr("\"scene\":\"photo\""));
}

TEST_F(Http, TheStateAndEveryAnswerHaveTheVersionOfTheInterface)
{
    EXPECT_THAT(get("/api/state").body, HasSubstr("\"api_version\":1,"));
    for (const char *target : {"/api", "/api/state", "/api/nothing", "/", "/snapshot"})
        EXPECT_EQ(get(target).header.at("x-api-version"), "1") << target;
    Client client(port_);
    client.send_bytes(head("GET", "/stream"));
    EXPECT_EQ(parse_answer(client.read_until_contains("\r\n\r\n")).header.at("x-api-version"), "1");
}

TEST_F(Http, StateHasTheTimeOfTheLatestMeasurement)
{
    fake_measure(*camera_, 7);
    fake_measure(*camera_, 42);

    const nlohmann::json state = nlohmann::json::parse(get("/api/state").body);

    EXPECT_EQ(state["time_s"].get<double>(), 0.0625);
    EXPECT_EQ(state["latest"]["time_s"].get<double>(), 0.0625);
}

TEST_F(Http, MeasurementsAreServedAsJsonAndAsCsv)
{
    fake_measure(*camera_, 7);
    fake_measure(*camera_, 42);

    EXPECT_EQ(
        get("/api/measurements?after=1").body,
        "{\"measurements\":[{\"blur_px\":0.0,\"number\":2,\"overlay\":{\"current\":7,\"peak\":0,"
        "\"percent\":0,\"running\":true},\"raw\":4200,\"ring\":0.0,"
        "\"time_s\":0.0625,\"value\":42}]}");
    const Response table = get("/api/measurements.csv?download=1");
    EXPECT_EQ(table.body, "number,time_s,ring,blur_px,raw,value\r\n"
                          "1,0.0312,0.00000,0.000,700,7\r\n2,0.0625,0.00000,0.000,4200,42\r\n");
    EXPECT_THAT(table.header.at("content-disposition"), StartsWith("attachment"));
}

TEST_F(Http, OutputIsServedByteForByte)
{
    fake_write(*camera_, 1, std::string("a\0b\xFF", 4));
    fake_write(*camera_, 2, "ERR\n");

    const Response both = get("/api/output");
    EXPECT_EQ(both.body, std::string("a\0b\xFF"
                                     "ERR\n",
                                     8));
    EXPECT_EQ(both.header.at("x-last-number"), "2");
    EXPECT_EQ(get("/api/output?stream=2").body, "ERR\n");
    EXPECT_EQ(get("/api/output?after=2").body, "");
}

TEST_F(Http, CallsHaveTheirErrorCode)
{
    fake_call(*camera_, "qm7_cl_post_open_osd", 0x81E03246);

    EXPECT_THAT(get("/api/calls").body, HasSubstr("\"error\":\"0x81E03246\""));
}

TEST_F(Http, FramesHaveThePostsSizeAndThePlanesOnRequest)
{
    const auto frame = [&](const std::string &target) {
        const std::string bytes = get(target).body;
        return cv::imdecode(std::vector<uchar>(bytes.begin(), bytes.end()), cv::IMREAD_COLOR);
    };

    const cv::Mat with = frame("/api/posts/1/frame.png");
    const cv::Mat without = frame("/api/posts/1/frame.png?planes=0");

    ASSERT_EQ(with.size(), cv::Size(720, 576));
    EXPECT_EQ(with.at<cv::Vec3b>(2, 2), cv::Vec3b(255, 255, 255));
    EXPECT_EQ(without.at<cv::Vec3b>(2, 2), cv::Vec3b(80, 80, 80));
    EXPECT_EQ(frame("/api/all/frame.png?width=640").size(), cv::Size(640, 360));
    EXPECT_EQ(frame("/api/sensor/frame.png").size(), cv::Size(1280, 720));
}

TEST_F(Http, AStillComesAsAJpegToo)
{
    fake_noise(*camera_);
    fake_measure(*camera_, 5);
    fake_measure(*camera_, 6);

    const Response answer = get("/api/posts/1/frame.jpg?download=1");

    EXPECT_EQ(answer.header.at("content-type"), "image/jpeg");
    EXPECT_THAT(answer.body, StartsWith("\xFF\xD8\xFF"));
    EXPECT_EQ(answer.header.at("x-measurement"), "2");
    EXPECT_EQ(answer.header.at("content-disposition"),
              "attachment; filename=\"simcam-post1-2.jpg\"");
    const cv::Mat picture =
        cv::imdecode(std::vector<uchar>(answer.body.begin(), answer.body.end()), cv::IMREAD_COLOR);
    EXPECT_EQ(picture.size(), cv::Size(720, 576));
    EXPECT_LT(get("/api/posts/1/frame.jpg?quality=20").body.size(), answer.body.size());
    EXPECT_THAT(get("/api/posts/1/frame.png").body, StartsWith("\x89PNG"));
}

TEST_F(Http, ShortNamesAnswerAsTheLongOnes)
{
    const auto size_of = [&](const std::string &target) {
        const std::string bytes = get(target).body;
        return cv::imdecode(std::vector<uchar>(bytes.begin(), bytes.end()), cv::IMREAD_COLOR)
            .size();
    };

    EXPECT_EQ(get("/state").body, get("/api/state").body);
    EXPECT_EQ(get("/snapshot").body, get("/api/posts/0/frame.jpg").body);
    EXPECT_EQ(size_of("/snapshot?post=1&width=360"), cv::Size(360, 288));
    EXPECT_EQ(get("/snapshot?post=3").status, 409) << "it is off";
    EXPECT_EQ(get("/stream?post=4").status, 400);
    Client client(port_);
    client.send_bytes(head("GET", "/stream?post=1"));
    EXPECT_THAT(client.read_until_contains("Content-Type: image/jpeg"), HasSubstr("--frame"));
}

TEST_F(Http, AFrameOfAPostThatIsOffIsRefused)
{
    const Response answer = get("/api/posts/3/frame.png");

    EXPECT_EQ(answer.status, 409);
    EXPECT_THAT(answer.body, HasSubstr("post 3 is off"));
}

TEST_F(Http, PlanesAreServedRawAndAsPictures)
{
    PlaneState plane;
    plane.open = plane.shown = true;
    plane.width = 2;
    plane.pitch = 4;
    plane.height = 2;
    plane.depth_code = 2;
    fake_show(*camera_, 0, 1, plane, {11, 18, 9, 9, 0, 20, 9, 9});

    const std::string state = get("/api/posts/0/planes/1").body;
    EXPECT_THAT(state, HasSubstr("\"depth\":8,"));
    EXPECT_THAT(state, HasSubstr("\"pitch\":4,"));
    EXPECT_THAT(state, HasSubstr("\"size\":8,"));
    const Response raw = get("/api/posts/0/planes/1/raw");
    EXPECT_EQ(raw.body, std::string("\x0B\x12\x09\x09\0\x14\x09\x09", 8));
    EXPECT_EQ(raw.header.at("x-pitch"), "4");
    EXPECT_EQ(raw.header.at("x-depth"), "8");
    const std::string bytes = get("/api/posts/0/planes/1/indices.png").body;
    const cv::Mat indices =
        cv::imdecode(std::vector<uchar>(bytes.begin(), bytes.end()), cv::IMREAD_UNCHANGED);
    EXPECT_THAT(cv::Mat_<uint8_t>(indices.reshape(1, 1)), ElementsAre(11, 18, 0, 20));
    EXPECT_EQ(get("/api/posts/0/planes/0/raw").status, 404);
    const std::string colors = get("/api/posts/0/planes/1/colors.png").body;
    const cv::Mat dots =
        cv::imdecode(std::vector<uchar>(colors.begin(), colors.end()), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(dots.type(), CV_8UC4);
    EXPECT_EQ(dots.at<cv::Vec4b>(0, 0)[3], 255) << "entry 11 is opaque";
    EXPECT_EQ(dots.at<cv::Vec4b>(1, 0)[3], 0) << "entry 0 is invisible";
    EXPECT_EQ(get("/api/palette/raw").body.size(), 1024u);
    EXPECT_THAT(get("/api/palette").body, HasSubstr("[76,84,255,8]")); // entry 18
}

// ---- changing ----

TEST_F(Http, EveryCommandReachesTheCamera)
{
    const std::pair<const char *, const char *> commands[] = {
        {"/api/ring", R"({"ring":0.5})"},
        {"/api/sweep", R"({"on":true,"period_s":4})"},
        {"/api/scene", R"({"scene":"chart"})"},
        {"/api/gain", R"({"gain":2})"},
        {"/api/noise", R"({"noise":0.5})"},
        {"/api/flash", ""},
        {"/api/posts/1/stop", ""},
        {"/api/posts/1/start", ""},
        {"/api/faults", R"({"call":"open","error":"0x10","remaining":2,"delay_ms":30})"},
        {"/api/process/start", ""},
        {"/api/process/stop", ""},
        {"/api/process/start", ""},
        {"/api/process/kill", ""},
    };
    for (const auto &[target, body] : commands)
        EXPECT_EQ(post(target, body).body, "{\"ok\":true}") << target;
    EXPECT_EQ(ask("DELETE", "/api/faults").status, 200);

    EXPECT_THAT(fake_changes(*camera_),
                ElementsAre("ring 0.5", "sweep 1 4", "scene chart", "gain 2", "noise 0.5", "flash",
                            "stop 1", "start 1 0x0 if another size", "fault open 16 2 30",
                            "process start", "process stop", "process start", "process kill",
                            "clear"));
}

TEST_F(Http, StartingAPostIsOneCallOfTheCamera)
{
    EXPECT_EQ(post("/api/posts/0/start", R"({"size":"352x288"})").status, 200);

    EXPECT_THAT(fake_changes(*camera_), ElementsAre("start 0 352x288 if another size"));
}

TEST_F(Http, ErrorsOfTheCameraAreReturned)
{
    const Response answer = post("/api/scene", R"({"scene":"nowhere"})");

    EXPECT_EQ(answer.status, 409);
    EXPECT_THAT(answer.body, HasSubstr("no such file"));
    EXPECT_EQ(post("/api/process/stop", "").status, 409) << "it is not running";
    EXPECT_EQ(post("/api/posts/3/start", "").status, 409) << "it has had no size yet";
}

// ---- refusing ----

TEST_F(Http, RefusalsAreJsonWithTheirStatus)
{
    const Response missing = get("/api/nothing");
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.header.at("content-type"), "application/json");
    EXPECT_THAT(missing.body, HasSubstr("\"status\":404"));

    const Response method = ask("PUT", "/api/faults");
    EXPECT_EQ(method.status, 405);
    EXPECT_EQ(method.header.at("allow"), "GET, HEAD, POST, DELETE");
    EXPECT_EQ(get("/api/ring").header.at("allow"), "POST") << "HEAD would be refused";
    EXPECT_EQ(post("/api/ring", "{\"ring\":7}").status, 400);
    EXPECT_TRUE(fake_changes(*camera_).empty());
}

TEST_F(Http, OverlongRequestsAreRefused)
{
    EXPECT_EQ(post("/api/ring", std::string(HTTP_BODY_MAX + 1, ' ')).status, 413);
    EXPECT_EQ(get("/api/state?" + std::string(9000, 'x')).status, 414);
}

TEST_F(Http, MalformedRequestsAreRefused)
{
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    const struct {
        const char *what;
        std::string request; // head() ends the headers; a body comes behind it
        int status;
    } cases[] = {
        {"a length that is no number", head("POST", "/api/flash", "Content-Length: x\r\n"), 400},
        {"a negative length", head("POST", "/api/flash", "Content-Length: -1\r\n"), 400},
        {"a length with more behind it", head("POST", "/api/flash", "Content-Length: 1x\r\n") + "{",
         400},
        {"a length of 24 digits",
         head("POST", "/api/flash", "Content-Length: " + std::string(24, '9') + "\r\n"), 413},
        {"a chunk without a size", head("POST", "/api/flash", chunked) + "zz\r\n{}\r\n0\r\n\r\n",
         400},
        {"a chunk longer than its size",
         head("POST", "/api/flash", chunked) + "2\r\n{}xx\r\n0\r\n\r\n", 400},
        {"two different lengths",
         head("POST", "/api/flash", "Content-Length: 0\r\nContent-Length: 2\r\n") + "{}", 400},
        {"two different lengths in the other order",
         head("POST", "/api/flash", "Content-Length: 2\r\nContent-Length: 0\r\n") + "{}", 400},
        {"a length beside chunks",
         head("POST", "/api/flash", "Content-Length: 2\r\n" + chunked) + "2\r\n{}\r\n0\r\n\r\n",
         400},
        {"chunks beside a length",
         head("POST", "/api/flash", chunked + "Content-Length: 13\r\n") + "2\r\n{}\r\n0\r\n\r\n",
         400},
        {"no Host", "POST /api/flash HTTP/1.1\r\n\r\n", 400},
        {"two Hosts", head("POST", "/api/flash", "Host: " + host_ + "\r\n"), 400},
        {"a header without a colon", head("GET", "/api/state", "nonsense\r\n"), 400},
        {"no hexadecimal digits in a path", head("GET", "/api/st%zzate"), 400},
        {"no hexadecimal digits in a query", head("GET", "/api/events?kinds=%zz"), 400},
        {"a query that ends in a per cent sign", head("GET", "/api/events?kinds=state%"), 400},
        {"a header of 40 kB",
         head("GET", "/api/state", "X-Long: " + std::string(40000, 'a') + "\r\n"), 431},
        {"a first line of 40 kB", head("GET", "/api/state?" + std::string(40000, 'x')), 414},
    };
    for (const auto &[what, request, status] : cases) {
        Client client(port_);
        client.send_bytes(request);
        EXPECT_EQ(parse_answer(client.read_all()).status, status) << what;
        EXPECT_TRUE(client.closed()) << what;
    }
    EXPECT_TRUE(fake_changes(*camera_).empty());
    EXPECT_EQ(get("/api/state").status, 200);
}

// The connections stay open after a good request, so the refusal closes them.
TEST_F(Http, ARequestOfAmbiguousLengthClosesTheConnection)
{
    for (const std::string more : {"Content-Length: 0\r\nContent-Length: 40\r\n",
                                   "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"}) {
        Client client(port_);
        client.send_bytes("POST /api/flash HTTP/1.1\r\nHost: " + host_ + "\r\n" + more +
                          "\r\n0\r\n\r\n" + head("POST", "/api/flash"));

        const std::string all = client.read_all();

        EXPECT_TRUE(client.closed()) << more;
        EXPECT_EQ(all.find("HTTP/1.1 ", 1), all.npos) << all;
    }
    EXPECT_TRUE(fake_changes(*camera_).empty());
}

TEST_F(Http, AChunkedBodyAndARepeatedLengthAreRead)
{
    const std::string json = "Content-Type: application/json\r\n";
    const auto send = [&](const std::string &headers, const std::string &body) {
        Client client(port_);
        client.send_bytes(head("POST", "/api/gain", json + headers) + body);
        return parse_answer(client.read_all()).status;
    };

    EXPECT_EQ(send("Transfer-Encoding: chunked\r\n", "a\r\n{\"gain\":2}\r\n0\r\n\r\n"), 200);
    EXPECT_EQ(send("Content-Length: 10\r\nContent-Length: 10\r\n", "{\"gain\":4}"), 200);

    EXPECT_THAT(fake_changes(*camera_), ElementsAre("gain 2", "gain 4"));
}

// The form that clients send to a proxy: the host of the target counts, not the Host header.
TEST_F(Http, ATargetMayNameItsHost)
{
    const auto status = [&](const std::string &target, const std::string &host,
                            const std::string &more = "") {
        Client client(port_);
        client.send_bytes("GET " + target + " HTTP/1.1\r\nHost: " + host +
                          "\r\nConnection: close\r\n" + more + "\r\n");
        return parse_answer(client.read_all()).status;
    };

    EXPECT_EQ(status("http://" + host_ + "/api/state", host_), 200);
    EXPECT_EQ(status("HTTP://LocalHost/api/measurements?after=1", host_), 200);
    EXPECT_EQ(status("http://" + host_, host_), 200) << "the page";
    EXPECT_EQ(status("http://" + host_ + "/api/nothing", host_), 404);
    EXPECT_EQ(status("http://evil.example/api/state", host_), 403);
    EXPECT_EQ(status("http://" + host_ + "/api/state", "evil.example"), 200);
    EXPECT_EQ(status("http://" + host_ + "/api/state", host_, "Origin: http://evil.example\r\n"),
              403);
    EXPECT_EQ(status("http://" + host_ + "/api/state", host_, "Origin: http://" + host_ + "\r\n"),
              200);
    EXPECT_EQ(status("https://" + host_ + "/api/state", host_), 400);
}

TEST_F(Http, AnInvalidFirstLineClosesTheConnection)
{
    for (const std::string noise :
         {"GET\r\n\r\n", "nonsense\r\n\r\n", "\x16\x03\x01\x02\x01\r\n\r\n",
          "GET / HTTP/9.9\r\n\r\n", "GET / FTP/1.0\r\n\r\n", "GET / HTTP/1.1 more\r\n\r\n"}) {
        Client client(port_);
        client.send_bytes(noise);

        const std::string answer = client.read_all();

        EXPECT_TRUE(client.closed()) << noise;
        const int status = parse_answer(answer).status;
        EXPECT_TRUE(answer.empty() || status / 100 == 4 || status == 505) << noise << answer;
    }
    Client silent(port_);
    silent.send_bytes("\r\n\r\n\r\n");
    silent.hang_up();
    EXPECT_EQ(get("/api/state").status, 200);
}

TEST_F(Http, OtherNamesOfThisMachineAreRefused)
{
    for (const char *host : {"evil.example", "localhost.evil.example:80", ""}) {
        Client client(port_);
        client.send_bytes("GET /api/state HTTP/1.1\r\nHost: " + std::string(host) +
                          "\r\nConnection: close\r\n\r\n");
        EXPECT_EQ(parse_answer(client.read_all()).status, 403) << host;
    }
    Client tunnel(port_);
    tunnel.send_bytes(
        "GET /api/state HTTP/1.1\r\nHost: localhost:9000\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(parse_answer(tunnel.read_all()).status, 200);
}

TEST_F(Http, OtherSitesAreRefused)
{
    EXPECT_EQ(ask("POST", "/api/flash", "Origin: http://evil.example\r\n").status, 403);
    EXPECT_EQ(ask("POST", "/api/flash", "Origin: null\r\n").status, 403);
    EXPECT_EQ(ask("GET", "/api/state", "Sec-Fetch-Site: cross-site\r\n").status, 403);
    EXPECT_TRUE(fake_changes(*camera_).empty());

    EXPECT_EQ(ask("POST", "/api/flash", "Origin: http://" + host_ + "\r\n").status, 200);
    EXPECT_EQ(ask("GET", "/", "Sec-Fetch-Site: cross-site\r\n").status, 200)
        << "a link to the page";
}

// ---- streams ----

TEST_F(Http, PicturesFollowMeasurements)
{
    Client client(port_);
    client.send_bytes(head("GET", "/api/posts/0/stream.mjpeg?width=320"));
    fake_measure(*camera_, 1);
    EXPECT_THAT(client.read_until_contains("X-Measurement: 1\r\n"), HasSubstr("boundary=frame"));

    fake_measure(*camera_, 2);

    EXPECT_THAT(client.read_until_contains("X-Measurement: 2\r\n"),
                HasSubstr("--frame\r\nContent-Type: image/jpeg\r\n"));
}

TEST_F(Http, HeadOfAStreamIsItsHeadersOnly)
{
    for (const std::string target : {"/api/posts/0/stream.mjpeg", "/stream", "/api/events"}) {
        Client client(port_);
        client.send_bytes("HEAD " + target + " HTTP/1.1\r\nHost: " + host_ + "\r\n\r\n");

        const std::string answer = client.read_all();

        EXPECT_TRUE(client.closed()) << target;
        EXPECT_EQ(parse_answer(answer).status, 200) << target;
        EXPECT_EQ(parse_answer(answer).body, "") << target;
        EXPECT_EQ(parse_answer(answer).header.count("content-length"), 0u) << target;
    }
}

TEST_F(Http, APostThatIsOffStillStreams)
{
    Client client(port_);
    client.send_bytes(head("GET", "/api/posts/3/stream.mjpeg"));

    EXPECT_THAT(client.read_until_contains("Content-Type: image/jpeg"), HasSubstr("--frame"));
}

TEST_F(Http, EventsStartWithTheBacklogAndContinue)
{
    fake_measure(*camera_, 5);
    fake_write(*camera_, 2, "ERR\n");
    Client client(port_);
    client.send_bytes(head("GET", "/api/events?kinds=state,measurement,output,call"));
    EXPECT_THAT(client.read_until_contains("\"value\":5"),
                testing::AllOf(HasSubstr("event: hello"), HasSubstr("event: state"),
                               HasSubstr("\"text\":\"ERR\\n\"")));

    fake_measure(*camera_, 6);
    client.read_until_contains("\"value\":6");
    fake_call(*camera_, "qm7_cl_sys_open_device", 0);
    client.read_until_contains("qm7_cl_sys_open_device");
    camera_set_gain(*camera_, 4);

    EXPECT_THAT(client.read_until_contains("\"gain\":4.0"), HasSubstr("\"gain\":4.0"));
}

TEST_F(Http, EventsContinueAfterTheLastEventIdOfTheRequest)
{
    fake_measure(*camera_, 5);
    fake_measure(*camera_, 6);
    std::string id;
    {
        Client client(port_);
        client.send_bytes(head("GET", "/api/events?kinds=measurement"));
        const std::string all = client.read_until_contains("\"value\":6");
        const size_t end = all.find("-1-0-0\n"); // one measurement, no output, no call
        ASSERT_NE(end, all.npos);
        const size_t line = all.rfind('\n', end) + 1;
        ASSERT_EQ(all.substr(line, 4), "id: ");
        id = all.substr(line + 4, end - line + 2);
    }

    Client again(port_);
    again.send_bytes(head("GET", "/api/events?kinds=measurement", "Last-Event-ID: " + id + "\r\n"));

    EXPECT_THAT(again.read_until_contains("\"value\":6"), testing::Not(HasSubstr("\"value\":5")));
}

TEST_F(Http, WithoutBacklogOnlyNewEventsAreSent)
{
    fake_measure(*camera_, 5);
    Client client(port_);
    client.send_bytes(head("GET", "/api/events?kinds=measurement&backlog=0"));
    client.read_until_contains("event: hello");

    fake_measure(*camera_, 6);

    EXPECT_THAT(client.read_until_contains("\"value\":6"), testing::Not(HasSubstr("\"value\":5")));
}

TEST_F(Http, StreamsAreLimited)
{
    std::vector<std::unique_ptr<Client>> clients;
    for (unsigned i = 0; i < HTTP_STREAMS_MAX; ++i) {
        clients.push_back(std::make_unique<Client>(port_));
        clients.back()->send_bytes(head("GET", "/api/events?kinds=measurement"));
        clients.back()->read_until_contains("event: hello");
    }

    const Response refused = get("/api/events");
    EXPECT_EQ(refused.status, 503);
    EXPECT_THAT(refused.body, HasSubstr("streams are in use"));
    EXPECT_EQ(get("/api/state").status, 200) << "single answers go on";

    clients.clear();
    int status = 503;
    for (int tries = 0; status == 503 && tries < 100; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        Client next(port_);
        next.send_bytes(head("GET", "/api/events"));
        status = parse_answer(next.read_until_contains("\r\n\r\n")).status;
    }
    EXPECT_EQ(status, 200) << "readers that left free their places";
}

TEST_F(Http, ConnectionsAreLimited)
{
    const std::string request = "GET /api/process HTTP/1.1\r\nHost: " + host_ + "\r\n\r\n";
    const auto answers = [](const std::string &all) {
        size_t count = 0;
        for (size_t at = 0; (at = all.find("HTTP/1.1 200 ", at)) != all.npos; ++at)
            ++count;
        return count;
    };
    std::vector<std::unique_ptr<Client>> clients; // each stays connected after its answer
    for (unsigned i = 0; i < HTTP_CONNECTIONS_MAX; ++i) {
        clients.push_back(std::make_unique<Client>(port_));
        clients.back()->send_bytes(request);
        ASSERT_EQ(answers(clients.back()->read_until_contains("\"starts\":")), 1u) << i;
    }

    Client last(port_);
    if (last.connected()) {
        last.send_bytes(request);
        EXPECT_EQ(last.read_all(), "");
        EXPECT_TRUE(last.closed());
    }

    Client &first = *clients.front();
    first.send_bytes(request);
    EXPECT_EQ(answers(first.read_until([&](const auto &all) { return answers(all) == 2; })), 2u);
    EXPECT_FALSE(first.closed());
    clients.pop_back();
    bool answered = false;
    for (int tries = 0; !answered && tries < 100; ++tries) {
        answered = get("/api/process").status == 200;
        if (!answered)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_TRUE(answered) << "a closed connection frees its place";
}

TEST_F(Http, AReaderThatStallsDelaysNobody)
{
    std::atomic<bool> stop{false};
    std::thread clock([&] {
        while (!stop) {
            fake_measure(*camera_, 9);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    fake_noise(*camera_);
    Client stalled(port_, 4096); // asks for big pictures and never reads one
    stalled.send_bytes(head("GET", "/api/posts/0/stream.mjpeg?quality=100&fps=60"));

    Client client(port_);
    client.send_bytes(head("GET", "/api/posts/0/stream.mjpeg?quality=100&fps=60"));
    const auto frames = [](const std::string &all) {
        size_t count = 0;
        for (size_t at = 0; (at = all.find("X-Measurement", at)) != all.npos; ++at)
            ++count;
        return count;
    };
    const std::string &read = client.read_until([&](const auto &all) { return frames(all) >= 40; });

    EXPECT_GE(frames(read), 40u);
    EXPECT_GT(read.size(), 16u << 20); // more than the system's socket buffers hold
    EXPECT_EQ(get("/api/state").status, 200);
    stop = true;
    clock.join();
}

static size_t count_of(const char *folder)
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        (void)entry;
        ++count;
    }
    return count;
}

// Waits until the counts are back at their earlier values, which takes as long as the slowest
// connection.
static bool settles(const std::function<bool()> &settled)
{
    for (int tries = 0; tries < 300; ++tries) {
        if (settled())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

TEST_F(Http, ConnectionsWithoutProgressAreClosedAfterTheIdleTime)
{
    using Clock = std::chrono::steady_clock;
    using std::chrono::seconds;
    start_server(1);
    std::atomic<bool> stop{false};
    std::thread clock([&] {
        while (!stop) {
            fake_measure(*camera_, 9);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    fake_noise(*camera_);
    const size_t descriptors = count_of("/proc/self/fd");
    Client reader(port_, 4096); // does not read until the server has closed
    reader.send_bytes(head("GET", "/api/posts/0/stream.mjpeg?quality=100&fps=60"));
    Client writer(port_); // never ends its request
    const Clock::time_point start = Clock::now();
    writer.send_bytes("GET /api/state HTTP/1.1\r\nHost: " + host_);

    while (!writer.closed() && Clock::now() < start + seconds(40))
        writer.read_all();
    const auto passed = Clock::now() - start;
    EXPECT_TRUE(writer.closed());
    EXPECT_GT(passed, std::chrono::milliseconds(500));
    EXPECT_LT(passed, seconds(12));

    // The two ends of the server are closed. The reader gets what fitted into the socket buffers.
    EXPECT_TRUE(settles([&] { return count_of("/proc/self/fd") <= descriptors + 2; }));
    reader.read_all();
    EXPECT_TRUE(reader.closed());
    stop = true;
    clock.join();
}

TEST_F(Http, AThousandDroppedConnectionsLeakNothing)
{
    cv::setNumThreads(1); // keeps the picture library from starting threads
    const size_t threads = count_of("/proc/self/task");
    const size_t descriptors = count_of("/proc/self/fd");
    const std::string targets[] = {"/api/state", "/api/events", "/api/posts/0/stream.mjpeg",
                                   "/api/posts/1/frame.png"};
    size_t threads_most = 0;
    for (unsigned i = 0; i < 1000; ++i) {
        Client client(port_);
        if (i % 5 != 4) {
            client.send_bytes(head("GET", targets[i % 4]));
            if (i % 3 == 0)
                client.read_until_contains("HTTP/1.1");
        }
        client.hang_up();
        threads_most = std::max(threads_most, count_of("/proc/self/task"));
    }

    EXPECT_LE(threads_most, HTTP_CONNECTIONS_MAX + threads);
    EXPECT_TRUE(settles([&] { return count_of("/proc/self/task") <= threads; }))
        << count_of("/proc/self/task") << " threads, before " << threads;
    EXPECT_TRUE(settles([&] { return count_of("/proc/self/fd") <= descriptors; }))
        << count_of("/proc/self/fd") << " descriptors, before " << descriptors;
    EXPECT_EQ(get("/api/state").status, 200);
}

TEST_F(Http, StoppingEndsStreams)
{
    Client client(port_);
    client.send_bytes(head("GET", "/api/events"));
    client.read_until_contains("event: hello");

    server_.reset();

    client.read_all();
    EXPECT_FALSE(Client(port_).connected());
}

// ---- listening ----

TEST(HttpStart, InvalidAddressesAreRefused)
{
    std::string error;
    const auto camera = camera_start({}, &error);
    for (const char *listen :
         {"", "x", "127.0.0.1:", "127.0.0.1:99999", "nowhere.example:80", "1.2.3:80",
          "010.0.0.1:80", "127.0.0.1:65536", "127.0.0.1:-1", "[::1:80"}) {
        EXPECT_EQ(http_start(*camera, listen, &error), nullptr) << listen;
        EXPECT_THAT(error, HasSubstr("not an address to listen on"));
    }
}

TEST(HttpStart, AnAddressOfVersionSixIsServedInBrackets)
{
    std::string error;
    const auto camera = camera_start({}, &error);

    const int probe = socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 loopback = {};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    const bool usable =
        probe >= 0 && bind(probe, reinterpret_cast<sockaddr *>(&loopback), sizeof loopback) == 0;
    if (probe >= 0)
        close(probe);

    const auto server = http_start(*camera, "[::1]:0", &error);

    ASSERT_EQ(server != nullptr, usable) << error;
    if (usable)
        EXPECT_THAT(http_address(*server), testing::MatchesRegex("http://\\[::1\\]:[0-9]+/"));
    else
        EXPECT_THAT(error, StartsWith("cannot listen on [::1]:0: "));
}

static sockaddr_storage address_of(const std::string &text)
{
    sockaddr_storage address = {};
    const bool six = text.find(':') != text.npos;
    address.ss_family = six ? AF_INET6 : AF_INET;
    void *bytes = six ? static_cast<void *>(&reinterpret_cast<sockaddr_in6 &>(address).sin6_addr)
                      : &reinterpret_cast<sockaddr_in &>(address).sin_addr;
    EXPECT_EQ(inet_pton(address.ss_family, text.c_str(), bytes), 1) << text;
    return address;
}

// The host of listen_host() for a machine whose interfaces have these addresses.
static std::string host_among(const std::string &listening, bool six_only,
                              const std::vector<std::string> &addresses)
{
    std::vector<sockaddr_storage> storage;
    for (const std::string &text : addresses)
        storage.push_back(address_of(text));
    std::vector<ifaddrs> interfaces(addresses.size());
    for (size_t i = 0; i < interfaces.size(); ++i) {
        interfaces[i].ifa_next = i + 1 < interfaces.size() ? &interfaces[i + 1] : nullptr;
        interfaces[i].ifa_flags = IFF_UP | IFF_RUNNING;
        interfaces[i].ifa_addr = reinterpret_cast<sockaddr *>(&storage[i]);
    }
    const sockaddr_storage address = address_of(listening);
    return listen_host(reinterpret_cast<const sockaddr *>(&address), six_only,
                       interfaces.empty() ? nullptr : interfaces.data());
}

TEST(ListenHost, OfAllInterfacesIsOneThatOthersCanOpen)
{
    const std::vector<std::string> both = {"127.0.0.1", "::1", "fe80::1", "2001:db8::5",
                                           "192.0.2.7"};
    EXPECT_EQ(host_among("0.0.0.0", false, both), "192.0.2.7");
    EXPECT_EQ(host_among("::", false, both), "[2001:db8::5]");
    EXPECT_EQ(host_among("::ffff:0.0.0.0", false, both), "192.0.2.7") << "it accepts IPv4 only";

    const std::vector<std::string> four = {"127.0.0.1", "::1", "fe80::1", "192.0.2.7"};
    EXPECT_EQ(host_among("::", false, four), "192.0.2.7");
    EXPECT_EQ(host_among("::", true, four), "[::1]") << "the socket accepts IPv6 only";

    for (const auto &none :
         {std::vector<std::string>(), {"127.0.0.1", "::1", "::ffff:127.0.0.2"}}) {
        EXPECT_EQ(host_among("0.0.0.0", false, none), "127.0.0.1");
        EXPECT_EQ(host_among("::ffff:0.0.0.0", false, none), "127.0.0.1");
        EXPECT_EQ(host_among("::", false, none), "[::1]");
    }
}

TEST(ListenHost, OfOneInterfaceIsItsAddress)
{
    EXPECT_EQ(host_among("127.0.0.2", false, {"192.0.2.7"}), "127.0.0.2");
    EXPECT_EQ(host_among("::1", false, {"192.0.2.7"}), "[::1]");
}

TEST(ListenHost, MappedLoopbackIsNotExposed)
{
    const auto is_loopback = [](const char *text) {
        const sockaddr_storage address = address_of(text);
        return listen_is_loopback(reinterpret_cast<const sockaddr *>(&address));
    };
    for (const char *text : {"127.0.0.1", "127.255.0.9", "::1", "::ffff:127.0.0.1"})
        EXPECT_TRUE(is_loopback(text)) << text;
    for (const char *text : {"0.0.0.0", "128.0.0.1", "::", "::2", "::127.0.0.1", "::ffff:0.0.0.0",
                             "::ffff:10.0.0.127"})
        EXPECT_FALSE(is_loopback(text)) << text;
}

TEST(HttpStart, APortInUseIsReported)
{
    std::string error;
    const auto camera = camera_start({}, &error);
    const auto first = http_start(*camera, "localhost:0", &error);
    ASSERT_NE(first, nullptr) << error;
    const std::string address = http_address(*first);

    EXPECT_EQ(http_start(*camera, address.substr(7, address.size() - 8), &error), nullptr);

    EXPECT_THAT(error, HasSubstr("another simcam"));
}
