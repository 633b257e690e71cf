// The dashboard's server as a browser and an attacker meet it: a real `tvoxsp serve` process in
// the test's simulator folder, over HTTP.
#include "access.h"
#include "child.h"
#include "commands.h"
#include "support/sim_fixture.h"

#include <httplib.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using tvoxsp::serve::Access;
using tvoxsp::serve::Verdict;

TEST(ServeAccess, OnlyTheTokenFromTheServersOwnHostAndOriginIsAllowed)
{
    const std::string token(32, 'a');
    const Access access(token, tvoxsp::serve::local_hosts("127.0.0.1", 8470));
    const std::string cookie = access.cookie_name() + "=" + token;
    const std::string same_length_wrong(32, 'b');
    struct Case {
        const char *host, *origin;
        std::string query, cookies;
        Verdict verdict;
    };
    for (const Case &c : {
             Case{"127.0.0.1:8470", "", token, "", Verdict::allowed},
             Case{"localhost:8470", "http://localhost:8470", "", "x=1; " + cookie,
                  Verdict::allowed},
             Case{"[::1]:8470", "", "", cookie, Verdict::allowed},
             Case{"127.0.0.1:8470", "", "", "", Verdict::no_token},
             Case{"127.0.0.1:8470", "", same_length_wrong, "", Verdict::no_token},
             Case{"127.0.0.1:8470", "", token + "a", "", Verdict::no_token},
             Case{"127.0.0.1:8470", "", "", "tvoxsp_other=" + token, Verdict::no_token},
             // DNS rebinding: a name of the attacker's resolving to 127.0.0.1.
             Case{"evil.example:8470", "", token, "", Verdict::foreign_host},
             Case{"127.0.0.1:8471", "", token, "", Verdict::foreign_host},
             // A cross-site form or fetch, and a sandboxed frame.
             Case{"127.0.0.1:8470", "http://evil.example", token, cookie, Verdict::foreign_origin},
             Case{"127.0.0.1:8470", "null", token, cookie, Verdict::foreign_origin},
             Case{"127.0.0.1:8470", "https://127.0.0.1:8470", token, "", Verdict::foreign_origin},
         })
        EXPECT_EQ(access.check(c.host, c.origin, c.query, c.cookies), c.verdict)
            << c.host << " origin " << c.origin << " query " << c.query << " cookies " << c.cookies;
    EXPECT_EQ(tvoxsp::serve::random_token().size(), 32U);
    EXPECT_NE(tvoxsp::serve::random_token(), tvoxsp::serve::random_token());
}

Json::Value request(const std::vector<std::string> &words)
{
    Json::Value r;
    r["argv"] = Json::arrayValue;
    for (const std::string &w : words)
        r["argv"].append(w);
    return r;
}

TEST(ServeCommands, OnlyListedCommandsOfTheKindAskedForRun)
{
    using tvoxsp::serve::Kind;
    std::string error;
    EXPECT_TRUE(tool_command(request({"reg", "read", "0x2020"}), Kind::one_shot, error));
    EXPECT_TRUE(tool_command(request({"rtlog", "--interval", "1"}), Kind::live, error));
    EXPECT_TRUE(tool_command(request({"tuning", "load", "--force"}), Kind::tuning, error));
    for (const auto &[words, kind] : std::vector<std::pair<std::vector<std::string>, Kind>>{
             {{"sh", "-c", "id"}, Kind::one_shot},
             {{"rtlog"}, Kind::one_shot}, // a live command never runs as a one-shot
             {{"tuning", "seal"}, Kind::tuning},
             {{"reg"}, Kind::one_shot},
             {{"slot", "write", "1", "2"}, Kind::one_shot},
             {{"serve"}, Kind::one_shot},
             {{}, Kind::one_shot},
         })
        EXPECT_FALSE(tool_command(request(words), kind, error)) << words.size();
    Json::Value not_strings = request({"get"});
    not_strings["argv"].append(7);
    EXPECT_FALSE(tool_command(not_strings, Kind::one_shot, error));
    EXPECT_EQ(error, "every word of \"argv\" is a string");
    EXPECT_TRUE(tvoxsp::serve::sim_command(request({"speaker", "B", "--fault", "shorted"}), error));
    EXPECT_FALSE(tvoxsp::serve::sim_command(request({"init", "--force"}), error));
    EXPECT_EQ(tvoxsp::serve::safe_file_name("../../etc/pass wd;rm"), "pass_wd_rm");
    EXPECT_EQ(tvoxsp::serve::safe_file_name("-rf"), "file-rf");
    EXPECT_EQ(tvoxsp::serve::safe_file_name("dir/"), "file");
}

// A running `tvoxsp serve`, its address and token.
class ServeTest : public tvox::test::SimTest
{
  protected:
    void start(const std::vector<std::string> &extra = {})
    {
        std::vector<std::string> argv = {TVOXSP_TOOL_PATH, "serve", "--port", "0"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        server_ = std::make_unique<tvoxsp::serve::Child>(argv);
        ASSERT_TRUE(server_->running()) << server_->error();
        std::string out;
        const std::string prefix = "open http://127.0.0.1:";
        while (out.find('\n', out.find(prefix)) == std::string::npos)
            ASSERT_TRUE(server_->read_out(out, 10000)) << out;
        const std::string url = out.substr(out.find(prefix) + prefix.size());
        port_ = std::stoi(url);
        token_ = url.substr(url.find("/?token=") + 8, 32);
        ASSERT_EQ(token_.find_first_not_of("0123456789abcdef"), std::string::npos) << url;
        client_ = std::make_unique<httplib::Client>("127.0.0.1", port_);
        client_->set_read_timeout(60);
    }

    httplib::Result post(const std::string &path, const Json::Value &body,
                         httplib::Headers headers = {}, bool with_token = true)
    {
        std::ostringstream text;
        text << body;
        return client_->Post((path + (with_token ? "?token=" + token_ : "")).c_str(), headers,
                             text.str(), "application/json");
    }

    static Json::Value json(const httplib::Result &res)
    {
        Json::Value value;
        std::istringstream(res->body) >> value;
        return value;
    }

    std::unique_ptr<tvoxsp::serve::Child> server_;
    std::unique_ptr<httplib::Client> client_;
    int port_ = 0;
    std::string token_;
};

TEST_F(ServeTest, ThePageNeedsTheTokenAndTheCookieCarriesItOn)
{
    start();
    EXPECT_EQ(client_->Get("/")->status, 403);
    EXPECT_EQ(client_->Get("/api/info")->status, 403);
    const auto page = client_->Get(("/?token=" + token_).c_str());
    ASSERT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("<title>tvoxsp dashboard</title>"), std::string::npos);
    const std::string cookie = page->get_header_value("Set-Cookie");
    EXPECT_NE(cookie.find("SameSite=Strict"), std::string::npos);
    const auto module = client_->Get("/app.js", {{"Cookie", cookie.substr(0, cookie.find(';'))}});
    EXPECT_EQ(module->status, 200);
    EXPECT_EQ(client_->Get("/uplot/uPlot.esm.js", {{"Cookie", cookie.substr(0, cookie.find(';'))}})
                  ->status,
              200);
    EXPECT_EQ(page->get_header_value("Content-Security-Policy").rfind("default-src 'self'", 0), 0U);
}

// The stand-in adb hands the joined line to `sh -c`, as adbd does on a phone, in a process of
// its own that a signal to adb does not reach; the stand-in tvoxsp records the words it got.
class AdbServeTest : public ServeTest
{
  protected:
    void SetUp() override
    {
        ServeTest::SetUp();
        adb_ = folder_file("adb", "#!/bin/sh\n"
                                  "[ \"$1\" = -s ] && shift 2\n"
                                  "case \"$1\" in\n"
                                  "shell) shift; sh -c \"$*\" & wait $! ;;\n"
                                  "push) cp \"$2\" \"$3\" ;;\n"
                                  "esac\n");
        words_ = sim_dir() + "/words";
        const std::string tool = folder_file(
            "phone-tvoxsp", "#!/bin/sh\nfor w in \"$@\"; do printf '%s\\n' \"$w\"; done >>" +
                                words_ + "\necho '{\"ok\": true}'\n");
        chmod(adb_.c_str(), 0755);
        chmod(tool.c_str(), 0755);
        setenv("TVOXSP_SERVE_ADB", adb_.c_str(), 1);
        setenv("TVOXSP_SERVE_REMOTE_TVOXSP", tool.c_str(), 1);
        setenv("TVOXSP_SERVE_REMOTE_DIR", sim_dir().c_str(), 1);
    }

    std::string words() const
    {
        std::ifstream in(words_);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string adb_, words_;
};

TEST_F(AdbServeTest, EveryWordReachesThePhoneAsOneWordAndRunsNothing)
{
    start({"--target", "adb:emulator-5554"});
    const std::string pwned = sim_dir() + "/pwned";
    const std::string name = "x'; touch " + pwned + "; echo '$(touch " + pwned + ")`touch " +
                             pwned + "` \"; touch " + pwned + " #\n|| touch " + pwned + " & \\";
    const auto res = post("/api/run", request({"get", name}));
    ASSERT_EQ(res->status, 200);
    EXPECT_TRUE(json(res)["result"]["ok"].asBool()) << res->body;
    EXPECT_EQ(words(), "--json\nget\n" + name + "\n");
    EXPECT_FALSE(std::filesystem::exists(pwned));
}

TEST_F(AdbServeTest, ForeignRequestsAndUnlistedCommandsRunNothing)
{
    start({"--target", "adb"});
    const Json::Value info = request({"info"});
    EXPECT_EQ(post("/api/run", info, {}, false)->status, 403);
    EXPECT_EQ(post("/api/run", info, {{"Origin", "http://evil.example"}})->status, 403);
    EXPECT_EQ(
        post("/api/run", info, {{"Host", "rebound.example:" + std::to_string(port_)}})->status,
        403);
    // A form can post text/plain to any site without asking it first.
    EXPECT_EQ(
        client_->Post(("/api/run?token=" + token_).c_str(), "{\"argv\":[\"info\"]}", "text/plain")
            ->status,
        415);
    EXPECT_EQ(post("/api/run", request({"sh", "-c", "id"}))->status, 400);
    EXPECT_EQ(post("/api/sim", request({"speakers"}))->status, 400); // no simulator over adb
    EXPECT_EQ(words(), "");
    // The uploaded file reaches the phone under a name of the server's making.
    Json::Value upload = request({"tuning", "check"});
    upload["name"] = "../;touch x;.txt";
    upload["content"] = "3,7,1987764275\n";
    ASSERT_EQ(post("/api/tuning", upload)->status, 200);
    const std::string head = "--json\ntuning\ncheck\n" + sim_dir() + "/";
    const std::string tail = "-1-_touch_x_.txt\n";
    const std::string got = words();
    ASSERT_TRUE(got.starts_with(head) && got.ends_with(tail)) << got;
    EXPECT_EQ(got.substr(head.size(), got.size() - head.size() - tail.size())
                  .find_first_not_of("0123456789"),
              std::string::npos)
        << got; // the server's process id
}

// The objects of a stream's "data: RECEIVED_MS OBJECT" events.
std::vector<Json::Value> objects(const std::string &events)
{
    std::vector<Json::Value> all;
    std::istringstream lines(events);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("data: "))
            continue;
        Json::Value value;
        std::istringstream(line.substr(line.find(' ', 6) + 1)) >> value;
        all.push_back(value);
    }
    return all;
}

// Streams a live command, asks for its stop after its first sample and returns every object
// the stream carried.
std::vector<Json::Value> stop_after_first_sample(httplib::Client &client, int port,
                                                 const std::string &token, const std::string &argv)
{
    std::string events;
    bool stopped = false;
    const std::string path =
        "/api/live?token=" + token + "&argv=" + httplib::detail::encode_query_param(argv);
    client.Get(path.c_str(), [&](const char *data, size_t size) {
        events.append(data, size);
        const size_t id = events.find("\"stream\":");
        if (stopped || id == std::string::npos || events.find("t_ms") == std::string::npos)
            return true;
        Json::Value stop;
        stop["stream"] = std::stoi(events.substr(id + 9));
        httplib::Client other("127.0.0.1", port);
        std::ostringstream body;
        body << stop;
        stopped = other.Post(("/api/stop?token=" + token).c_str(), body.str(), "application/json")
                      ->status == 200;
        return true;
    });
    EXPECT_TRUE(stopped) << events;
    return objects(events);
}

TEST_F(ServeTest, ALiveLogStreamsUntilStoppedAndEndsWithItsEndObject)
{
    start();
    install_phone();
    const std::vector<Json::Value> all =
        stop_after_first_sample(*client_, port_, token_, "[\"rtlog\",\"--interval\",\"10\"]");
    ASSERT_GE(all.size(), 3U); // started, a sample, the end
    EXPECT_EQ(all.front()["stream"].asInt(), 1);
    EXPECT_EQ(all[1]["type"], "sample");
    EXPECT_EQ(all.back()["type"], "end");
    EXPECT_EQ(all.back()["exit"], 0) << all.back();
}

// The stop reaches the tool on the phone as SIGINT, so its end line still comes back.
TEST_F(AdbServeTest, ALiveCommandOnThePhoneStopsCleanly)
{
    setenv("TVOXSP_SERVE_REMOTE_TVOXSP", TVOXSP_TOOL_PATH, 1);
    start({"--target", "adb"});
    install_phone();
    const std::vector<Json::Value> all =
        stop_after_first_sample(*client_, port_, token_, "[\"monitor\",\"0x4308\"]");
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(all[1]["type"], "sample");
    EXPECT_EQ(all.back()["type"], "end");
    EXPECT_EQ(all.back()["ok"], true) << all.back();
}

// The server's children, from /proc.
std::vector<pid_t> children_of(pid_t parent)
{
    std::vector<pid_t> children;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line) || line.rfind(')') == std::string::npos)
            continue;
        std::istringstream rest(line.substr(line.rfind(')') + 2));
        char state = 0;
        pid_t ppid = 0;
        if (rest >> state >> ppid && ppid == parent)
            children.push_back(std::stoi(entry.path().filename()));
    }
    return children;
}

TEST_F(ServeTest, APageThatGoesAwayStopsItsLiveCommand)
{
    start();
    install_phone();
    const std::string path = "/api/live?token=" + token_ + "&argv=" +
                             httplib::detail::encode_query_param("[\"monitor\",\"0x4308\"]");
    std::string events;
    client_->Get(path.c_str(), [&](const char *data, size_t size) {
        events.append(data, size);
        return events.find("\"t_ms\"") == std::string::npos; // gone after the first sample
    });
    ASSERT_NE(events.find("\"t_ms\""), std::string::npos) << events;
    // The server finds the page gone at its next write, within a second.
    for (int i = 0; i < 50 && !children_of(server_->pid()).empty(); ++i)
        usleep(100000);
    EXPECT_TRUE(children_of(server_->pid()).empty());
}

TEST_F(ServeTest, TheSimulatorsToolRunsOnlyItsListedCommands)
{
    start();
    Json::Value speaker = request({"speaker", "B", "--ohms", "7.5"});
    const auto res = post("/api/sim", speaker);
    ASSERT_EQ(res->status, 200);
    EXPECT_EQ(json(res)["exit"], 0) << res->body;
    EXPECT_NE(tool("speakers").output.find("B: speaker 7.50 ohm"), std::string::npos);
    EXPECT_EQ(post("/api/sim", request({"init", "--force", sim_dir()}))->status, 400);
    EXPECT_EQ(post("/api/run", request({"speaker", "B"}))->status, 400);
}

} // namespace
