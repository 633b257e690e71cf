#include "server.h"

#include "access.h"
#include "child.h"
#include "commands.h"

#include <httplib.h>
#include <json/json.h>

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace tvoxsp::serve
{
namespace
{

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string to_text(const Json::Value &value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

bool parse(const std::string &text, Json::Value &value)
{
    Json::CharReaderBuilder builder;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors);
}

void reply(httplib::Response &res, int status, const Json::Value &body)
{
    res.status = status;
    res.set_content(to_text(body), "application/json");
}

void refuse(httplib::Response &res, int status, const std::string &why)
{
    Json::Value body;
    body["error"] = why;
    reply(res, status, body);
}

// A live command's stream: its child and what is known of its end.
struct Live {
    std::unique_ptr<Child> child;
    pid_t pid = -1;
    std::string remote_pid; // over adb: the tool's process id on the phone
    std::atomic<bool> reaped = false;
    std::string pending; // a line not yet whole
    bool announced = false;
    bool saw_pid = false;
    bool saw_end = false;
    int64_t started_ms = 0;
    int64_t last_write_ms = 0;
};

class Dashboard
{
  public:
    Dashboard(const Options &options, Access access) : options_(options), access_(std::move(access))
    {
    }

    void install(httplib::Server &server);

  private:
    bool gate(const httplib::Request &req, httplib::Response &res) const;
    std::optional<Json::Value> json_body(const httplib::Request &req, httplib::Response &res) const;
    // Runs a one-shot tvoxsp command: {"result": its document or null, "exit", "stderr"}.
    Json::Value run_tool(const std::vector<std::string> &args) const;
    void run(const httplib::Request &req, httplib::Response &res) const;
    void tuning(const httplib::Request &req, httplib::Response &res) const;
    void sim(const httplib::Request &req, httplib::Response &res) const;
    void loud(const httplib::Request &req, httplib::Response &res) const;
    void live(const httplib::Request &req, httplib::Response &res);
    void stop(const httplib::Request &req, httplib::Response &res);
    bool pump(Live &live, int id, httplib::DataSink &sink);

    const Options &options_;
    Access access_;
    std::mutex streams_lock_;
    std::map<int, std::shared_ptr<Live>> streams_;
    int next_stream_ = 1;
    mutable std::atomic<int> next_upload_ = 1;
};

bool Dashboard::gate(const httplib::Request &req, httplib::Response &res) const
{
    switch (access_.check(req.get_header_value("Host"), req.get_header_value("Origin"),
                          req.get_param_value("token"), req.get_header_value("Cookie"))) {
    case Verdict::allowed:
        return true;
    case Verdict::no_token:
        res.status = 403;
        res.set_content("tvoxsp serve: open the URL with the token that serve printed\n",
                        "text/plain");
        return false;
    case Verdict::foreign_host:
        res.status = 403;
        res.set_content("tvoxsp serve: this Host is not the server's own\n", "text/plain");
        return false;
    case Verdict::foreign_origin:
        res.status = 403;
        res.set_content("tvoxsp serve: requests from another site are refused\n", "text/plain");
        return false;
    }
    return false;
}

// A request body is a JSON object sent as application/json: no HTML form can send that to
// another site without the browser asking the server first.
std::optional<Json::Value> Dashboard::json_body(const httplib::Request &req,
                                                httplib::Response &res) const
{
    Json::Value body;
    if (req.get_header_value("Content-Type") != "application/json") {
        refuse(res, 415, "the request body is application/json");
        return std::nullopt;
    }
    if (!parse(req.body, body) || !body.isObject()) {
        refuse(res, 400, "the request body is not a JSON object");
        return std::nullopt;
    }
    return body;
}

Json::Value Dashboard::run_tool(const std::vector<std::string> &args) const
{
    const Finished done = run_to_end(options_.target.tool_argv(args));
    Json::Value out;
    out["exit"] = done.status;
    out["stderr"] = done.err;
    if (!parse(done.out, out["result"]) || !out["result"].isObject()) {
        out["result"] = Json::Value();
        out["output"] = done.out;
    }
    return out;
}

void Dashboard::run(const httplib::Request &req, httplib::Response &res) const
{
    const auto body = json_body(req, res);
    if (!body)
        return;
    std::string error;
    const auto args = tool_command(*body, Kind::one_shot, error);
    if (!args)
        return refuse(res, 400, error);
    reply(res, 200, run_tool(*args));
}

// {"argv": ["tuning", "check"|"load"|..., options...], "name": FILE NAME, "content": TEXT}: the
// file goes where the tool can read it, named after the page's file, as the command's last word.
void Dashboard::tuning(const httplib::Request &req, httplib::Response &res) const
{
    const auto body = json_body(req, res);
    if (!body)
        return;
    std::string error;
    auto args = tool_command(*body, Kind::tuning, error);
    if (!args)
        return refuse(res, 400, error);
    if (!(*body)["content"].isString())
        return refuse(res, 400, "the request holds no file \"content\"");
    const std::string name = safe_file_name((*body)["name"].asString());
    char folder[] = "/tmp/tvoxsp-serve-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return refuse(res, 500, "no folder for the uploaded file");
    const std::string local = std::string(folder) + "/" + name;
    if (!(std::ofstream(local, std::ios::binary) << (*body)["content"].asString())) {
        rmdir(folder);
        return refuse(res, 500, "the uploaded file could not be written");
    }
    std::string path = local;
    Json::Value out;
    if (options_.target.adb) {
        path = options_.target.remote_path(std::to_string(getpid()) + "-" +
                                           std::to_string(next_upload_++) + "-" + name);
        const Finished pushed = run_to_end(options_.target.push_argv(local, path));
        if (pushed.status != 0) {
            out["exit"] = pushed.status;
            out["stderr"] = "adb push failed: " + pushed.err;
            out["result"] = Json::Value();
        }
    }
    if (!out.isMember("exit")) {
        args->push_back(path);
        out = run_tool(*args);
    }
    if (options_.target.adb)
        run_to_end(options_.target.shell_argv({"rm", "-f", path}));
    unlink(local.c_str());
    rmdir(folder);
    reply(res, 200, out);
}

// The virtual pair's own tool: only where the pair is, on this machine.
void Dashboard::sim(const httplib::Request &req, httplib::Response &res) const
{
    if (options_.target.adb)
        return refuse(res, 400, "the simulator runs only with --target local");
    const auto body = json_body(req, res);
    if (!body)
        return;
    std::string error;
    auto args = sim_command(*body, error);
    if (!args)
        return refuse(res, 400, error);
    args->insert(args->begin(), options_.target.tvoxsim);
    const Finished done = run_to_end(*args);
    Json::Value out;
    out["exit"] = done.status;
    out["output"] = done.out + done.err;
    reply(res, 200, out);
}

// The loud test signal: both amplifiers on the DSP, then the simulator's loud tone played
// through card 0, as music on a phone would.
void Dashboard::loud(const httplib::Request &req, httplib::Response &res) const
{
    if (options_.target.adb)
        return refuse(res, 400, "the loud test signal plays only with --target local");
    if (!json_body(req, res))
        return;
    Json::Value out = run_tool({"path", "amp_on_dsp"});
    if (out["exit"].asInt() == 0)
        out = run_tool({"play", "/sdcard/Music/loud.wav"});
    reply(res, 200, out);
}

// Moves what the child wrote to the page as events "data: RECEIVED_MS LINE" (the first, named
// "started", says which stream this is); false once the stream is over.
bool Dashboard::pump(Live &live, int id, httplib::DataSink &sink)
{
    std::string events;
    if (!live.announced) {
        Json::Value started;
        started["stream"] = id;
        started["started_ms"] = Json::Int64(live.started_ms);
        events =
            "event: started\ndata: " + std::to_string(now_ms()) + " " + to_text(started) + "\n\n";
        live.announced = true;
    }
    const bool more = live.child->read_out(live.pending, 200);
    if (options_.target.adb && !live.saw_pid) {
        const size_t eol = live.pending.find('\n');
        if (eol != std::string::npos) {
            const std::string pid = live.pending.substr(0, eol);
            live.pending.erase(0, eol + 1);
            live.saw_pid = true;
            const std::lock_guard lock(streams_lock_);
            if (!pid.empty() && pid.find_first_not_of("0123456789") == std::string::npos)
                live.remote_pid = pid;
        }
    }
    const std::string stamp = std::to_string(now_ms());
    for (size_t eol; (eol = live.pending.find('\n')) != std::string::npos;) {
        const std::string line = live.pending.substr(0, eol);
        live.pending.erase(0, eol + 1);
        if (line.empty())
            continue;
        Json::Value object;
        if (line.find("\"end\"") != std::string::npos && parse(line, object) &&
            object["type"] == "end")
            live.saw_end = true;
        events += "data: " + stamp + " " + line + "\n\n";
    }
    if (!more) {
        {
            const std::lock_guard lock(streams_lock_);
            live.reaped = true;
        }
        std::string out, err;
        const int status = live.child->finish(out, err);
        if (!live.saw_end) {
            Json::Value end;
            end["type"] = "end";
            end["ok"] = false;
            end["exit"] = status;
            end["error"]["class"] = "failed";
            end["error"]["message"] = err.empty() ? "the command ended without its end line" : err;
            events += "data: " + stamp + " " + to_text(end) + "\n\n";
        }
    }
    // A comment now and then finds a page that went away.
    if (events.empty() && now_ms() - live.last_write_ms > 1000)
        events = ": alive\n\n";
    if (!events.empty()) {
        live.last_write_ms = now_ms();
        if (!sink.write(events.data(), events.size())) {
            live.child->interrupt();
            return false;
        }
    }
    if (!more)
        sink.done();
    return more;
}

// GET /api/live?argv=["rtlog","--interval","100"]: an EventSource cannot post a body.
void Dashboard::live(const httplib::Request &req, httplib::Response &res)
{
    Json::Value request;
    if (!parse(req.get_param_value("argv"), request["argv"]))
        return refuse(res, 400, "argv is a JSON array of words");
    std::string error;
    const auto args = tool_command(request, Kind::live, error);
    if (!args)
        return refuse(res, 400, error);
    auto live = std::make_shared<Live>();
    live->started_ms = now_ms();
    live->child = std::make_unique<Child>(options_.target.live_argv(*args));
    if (!live->child->running())
        return refuse(res, 500, live->child->error());
    live->pid = live->child->pid();
    int id = 0;
    {
        const std::lock_guard lock(streams_lock_);
        id = next_stream_++;
        streams_[id] = live;
    }
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, live, id](size_t, httplib::DataSink &sink) { return pump(*live, id, sink); },
        [this, live, id](bool) {
            {
                const std::lock_guard lock(streams_lock_);
                streams_.erase(id);
                live->reaped = true;
            }
            live->child.reset(); // a child still running gets SIGINT and is waited for
        });
}

// {"stream": ID}: the stop sequence; the stream then carries the command's end object.
void Dashboard::stop(const httplib::Request &req, httplib::Response &res)
{
    const auto body = json_body(req, res);
    if (!body)
        return;
    const int id = (*body)["stream"].asInt();
    std::string remote_pid;
    {
        const std::lock_guard lock(streams_lock_);
        const auto found = streams_.find(id);
        if (found == streams_.end() || found->second->reaped)
            return refuse(res, 404, "no such live command");
        remote_pid = found->second->remote_pid;
        // Here, or over adb before the phone said which process the tool is: adb itself.
        if (remote_pid.empty())
            kill(found->second->pid, SIGINT);
    }
    // adb would only hang the phone's shell up; the tool's end line would be lost.
    if (!remote_pid.empty())
        run_to_end(options_.target.kill_argv(remote_pid));
    Json::Value out;
    out["stopping"] = id;
    reply(res, 200, out);
}

void Dashboard::install(httplib::Server &server)
{
    server.set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        return gate(req, res) ? httplib::Server::HandlerResponse::Unhandled
                              : httplib::Server::HandlerResponse::Handled;
    });
    server.set_post_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        if (req.has_param("token"))
            res.set_header("Set-Cookie", access_.set_cookie());
        // Nothing of the page loads from elsewhere, nor may it be framed by another site.
        res.set_header("Content-Security-Policy",
                       "default-src 'self'; style-src 'self' 'unsafe-inline'; "
                       "frame-ancestors 'none'");
        res.set_header("Referrer-Policy", "no-referrer");
        res.set_header("X-Content-Type-Options", "nosniff");
    });
    server.set_mount_point("/", options_.web_dir);
    server.set_mount_point("/uplot", options_.uplot_dir);
    server.Get("/api/info", [this](const httplib::Request &, httplib::Response &res) {
        Json::Value out;
        out["target"] = options_.target.adb ? "adb" : "local";
        out["serial"] = options_.target.serial;
        out["simulator"] = !options_.target.adb;
        reply(res, 200, out);
    });
    server.Post("/api/run", [this](const auto &req, auto &res) { run(req, res); });
    server.Post("/api/tuning", [this](const auto &req, auto &res) { tuning(req, res); });
    server.Post("/api/sim", [this](const auto &req, auto &res) { sim(req, res); });
    server.Post("/api/loud", [this](const auto &req, auto &res) { loud(req, res); });
    server.Get("/api/live", [this](const auto &req, auto &res) { live(req, res); });
    server.Post("/api/stop", [this](const auto &req, auto &res) { stop(req, res); });
}

} // namespace

int run_server(const Options &options)
{
    std::string token = random_token();
    if (token.empty()) {
        std::fprintf(stderr, "tvoxsp serve: the system gave no random bytes for the token\n");
        return 1;
    }
    // The stop signals are taken by one thread; every other thread, and no child, blocks them.
    sigset_t stops;
    sigemptyset(&stops);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&stops, sig);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    signal(SIGPIPE, SIG_IGN);

    httplib::Server server;
    const int port = options.port == 0
                         ? server.bind_to_any_port(options.bind)
                         : (server.bind_to_port(options.bind, options.port) ? options.port : -1);
    if (port <= 0) {
        std::fprintf(stderr, "tvoxsp serve: cannot listen on %s port %d\n", options.bind.c_str(),
                     options.port);
        return 1;
    }
    const std::string url_token = token;
    Dashboard dashboard(options, Access(std::move(token), local_hosts(options.bind, port)));
    dashboard.install(server);
    const std::string host = local_hosts(options.bind, port).front();
    std::printf("tvoxsp serve: driving %s%s%s\nopen http://%s/?token=%s\n",
                options.target.adb ? "the phone over adb" : "this machine's card 0",
                options.target.serial.empty() ? "" : " ", options.target.serial.c_str(),
                host.c_str(), url_token.c_str());
    std::fflush(stdout);
    std::thread waiter([&] {
        int sig = 0;
        sigwait(&stops, &sig);
        server.stop();
    });
    server.listen_after_bind();
    pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
    return 0;
}

} // namespace tvoxsp::serve
