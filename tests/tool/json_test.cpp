// tvoxsp --json: every command's document parsed with jsoncpp, its envelope matching the exit
// status, and the measured and stored values matching the simulator's state.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace
{

class TvoxspJsonTest : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        install_phone();
    }

    // The document on standard output (standard error dropped), and the exit status.
    static Json::Value json(const std::string &arguments, int &status)
    {
        const tvox::test::CommandResult result =
            run_command("{ { " TVOXSP_TOOL_PATH " --json " + arguments + "; } 2>/dev/null; }");
        status = result.status;
        Json::Value document;
        std::istringstream in(result.output);
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &document, &errors))
            << arguments << ": " << errors << "\n"
            << result.output;
        return document;
    }
    // The envelope agrees with the exit status; the document's error class is `error_class`.
    static Json::Value checked(const std::string &arguments, int status,
                               const std::string &error_class = "")
    {
        int exit = -1;
        Json::Value document = json(arguments, exit);
        EXPECT_EQ(exit, status) << arguments;
        EXPECT_EQ(document["exit"].asInt(), exit) << arguments;
        EXPECT_EQ(document["ok"].asBool(), exit == 0) << arguments;
        if (status == 0)
            EXPECT_TRUE(document["error"].isNull()) << arguments;
        else
            EXPECT_EQ(document["error"]["class"].asString(), error_class) << arguments;
        return document;
    }
};

TEST_F(TvoxspJsonTest, CalibrateVerifyAndReportAgreeWithTheSimulator)
{
    set_speaker(0, 6.0);
    set_speaker(1, 5.5);
    const Json::Value calibration = checked("calibrate", 0);
    EXPECT_EQ(calibration["command"].asString(), "calibrate");
    EXPECT_EQ(calibration["result"].asString(), "calibration success");
    ASSERT_EQ(calibration["channels"].size(), 2u);
    for (unsigned ch = 0; ch < 2; ++ch) {
        const Json::Value &channel = calibration["channels"][ch];
        const std::string name = ch == 0 ? "T" : "B";
        const long in_use = int_values(0, name + " DSP Set CAL_R")[0];
        EXPECT_EQ(channel["name"].asString(), name);
        EXPECT_EQ(channel["cal_r"].asInt64(), in_use);
        EXPECT_EQ(channel["in_use_cal_r"].asInt64(), in_use);
        EXPECT_NEAR(channel["ohms"].asDouble(), ch == 0 ? 6.0 : 5.5, 0.01);
        EXPECT_TRUE(channel["stored"].asBool());
        EXPECT_TRUE(channel["applied"].asBool());
        EXPECT_TRUE(channel["reason"].isNull());
        EXPECT_LT(channel["range"]["min_ohms"].asDouble(), channel["range"]["max_ohms"].asDouble());
    }
    // The driver slot is not set by a calibration: verify says it does not agree.
    const Json::Value unset = checked("verify", 8, "mismatch");
    EXPECT_FALSE(unset["agree"].asBool());
    EXPECT_EQ(unset["channels"][0]["slot"]["cal_r"].asInt(), 0);
    EXPECT_TRUE(unset["channels"][0]["in_range"].asBool());
    const std::string t = std::to_string(calibration["channels"][0]["cal_r"].asInt());
    const std::string b = std::to_string(calibration["channels"][1]["cal_r"].asInt());
    checked("slot write " + t + " " + b, 0);
    const Json::Value verified = checked("verify", 0);
    EXPECT_TRUE(verified["agree"].asBool());
    for (unsigned ch = 0; ch < 2; ++ch) {
        const Json::Value &channel = verified["channels"][ch];
        const Json::Value cal_r = calibration["channels"][ch]["cal_r"];
        for (const char *holder : {"stored", "dsp", "kernel", "slot"})
            EXPECT_EQ(channel[holder]["cal_r"], cal_r) << holder;
        EXPECT_TRUE(channel["agree"].asBool());
    }
    EXPECT_EQ(checked("slot read", 0)["cal_r"][1], calibration["channels"][1]["cal_r"]);
    preset_ints(0, "B DSP Set CAL_R", {9000});
    const Json::Value report = checked("report", 8, "mismatch");
    EXPECT_EQ(report["channels"][1]["kernel"]["cal_r"].asInt(), 9000);
    EXPECT_FALSE(report["channels"][1]["agree"].asBool());
    EXPECT_TRUE(report["channels"][0]["agree"].asBool());
}

TEST_F(TvoxspJsonTest, AFailedMeasurementNamesTheSpeakerAndItsClass)
{
    set_speaker(1, 6.0, tvox::sim::SpeakerFault::open);
    const Json::Value calibration = checked("calibrate", 5, "measurement");
    EXPECT_EQ(calibration["result"].asString(), "calibration failed");
    const Json::Value &bottom = calibration["channels"][1];
    EXPECT_EQ(bottom["cal_r"].asInt(), 0xFFFFFF);
    EXPECT_NE(bottom["reason"].asString().find("open circuit"), std::string::npos);
    EXPECT_FALSE(bottom["stored"].asBool());
    EXPECT_TRUE(calibration["channels"][0]["reason"].isNull());
    const Json::Value diagnosis = checked("diagnose", 5, "measurement");
    EXPECT_TRUE(diagnosis["channels"][0].isMember("f0"));
    checked("verify", 1, "failed"); // nothing stored
    // SIGTERM ends a measurement at once, as Ctrl-C does, and the document says so.
    set_speaker(1, 6.0);
    const tvox::test::CommandResult stopped =
        run_command("{ " TVOXSP_TOOL_PATH " --json calibrate >" + sim_dir() +
                    "/out 2>/dev/null & sleep 1; kill -TERM $!; wait $!; echo $?; cat " +
                    sim_dir() + "/out; }");
    EXPECT_TRUE(stopped.output.starts_with("130\n")) << stopped.output;
    EXPECT_NE(stopped.output.find("\"class\" : \"interrupted\""), std::string::npos)
        << stopped.output;
    EXPECT_EQ(int_values(0, "B AMP Enable Switch"), std::vector<long>{0});
}

// Every command, on success and on each kind of failure, prints one document on standard output.
TEST_F(TvoxspJsonTest, EveryCommandPrintsOneDocument)
{
    const struct {
        std::string arguments;
        int status;
        std::string error_class;
    } cases[] = {
        {"info", 0, ""},
        {"verify --help", 0, ""},
        {"reg read 0x2020", 0, ""},
        {"path amp_off", 0, ""},
        {"path --list", 0, ""},
        {"bypass off", 0, ""},
        {"module on", 0, ""},
        {"module config 1", 0, ""},
        {"get 'T DSP Mode'", 0, ""},
        {"set 'T DSP Mode' 2", 0, ""},
        {"mixer-test", 0, ""},
        {"report", 1, "failed"},
        {"frobnicate", 2, "usage"},
        {"reg read 0x2020x", 2, "usage"},
        {"get 'No Such Control'", 1, "failed"},
        {"set 'T DSP Mode' 4", 1, "failed"},
    };
    for (const auto &c : cases) {
        const Json::Value document = checked(c.arguments, c.status, c.error_class);
        EXPECT_EQ(document["command"].asString(), c.arguments.substr(0, c.arguments.find(' ')));
        if (c.status != 0) {
            EXPECT_FALSE(document["error"]["message"].asString().empty()) << c.arguments;
        }
    }
    setenv("TINYALSA_CARD_0", "tvoxsp_test_no_such_card", 1);
    for (const char *arguments : {"calibrate", "verify", "path amp_off", "get 'T DSP Mode'"})
        checked(arguments, 3, "no-device");
    EXPECT_NE(checked("calibrate", 3, "no-device")["error"]["message"].asString().find("no card 0"),
              std::string::npos);
}

} // namespace

namespace
{

// The lines a live command printed, each parsed.
std::vector<Json::Value> json_lines(const std::string &text)
{
    std::vector<Json::Value> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        Json::Value value;
        std::istringstream one(line);
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), one, &value, &errors)) << line;
        lines.push_back(value);
    }
    return lines;
}

// Every way a live run ends goes through the stop sequence: logging is off on both DSPs after.
TEST_F(TvoxspJsonTest, LiveCommandsEndCleanlyHoweverTheyAreStopped)
{
    const std::string tool = TVOXSP_TOOL_PATH;
    const std::string out = sim_dir() + "/out";
    const struct {
        std::string command; // output in `out`
        uint64_t samples;    // 0: any number above 0
    } cases[] = {
        {tool + " --json rtlog --interval 20 --count 3 >" + out, 3},
        {tool + " --json rtlog --interval 20 --duration 0.3 >" + out, 0},
        {tool + " --json rtlog --interval 20 >" + out + " & sleep 0.4; kill -TERM $!; wait $!", 0},
        {tool + " --json rtlog --interval 20 >" + out + " & sleep 0.4; kill -HUP $!; wait $!", 0},
        {tool + " --json rtlog --interval 20 | head -n 2 >" + out, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        preset_bytes(0, "T DSP1 Protection cd RTLOG_ENABLE", {0, 0, 0, 1});
        const tvox::test::CommandResult result = run_command("{ " + c.command + "; } 2>/dev/null");
        EXPECT_EQ(result.status, 0) << result.output;
        std::ifstream in(out);
        const std::vector<Json::Value> lines =
            json_lines(std::string(std::istreambuf_iterator<char>(in), {}));
        ASSERT_FALSE(lines.empty());
        const bool closed = c.command.find("| head") != std::string::npos;
        const size_t samples = lines.size() - (closed ? 0 : 1);
        if (c.samples != 0) {
            EXPECT_EQ(samples, c.samples);
        }
        for (size_t i = 0; i < samples; ++i) {
            EXPECT_EQ(lines[i]["type"].asString(), "sample");
            ASSERT_EQ(lines[i]["channels"].size(), 2u);
            EXPECT_EQ(lines[i]["channels"][1]["name"].asString(), "B");
            EXPECT_EQ(lines[i]["channels"][0]["c1"].asDouble(), 25.0); // a cold coil
        }
        if (!closed) {
            const Json::Value &end = lines.back();
            EXPECT_EQ(end["type"].asString(), "end");
            EXPECT_TRUE(end["ok"].asBool());
            EXPECT_EQ(end["status"].asString(), "rtlog exit - OK");
            EXPECT_EQ(end["samples"].asUInt64(), samples);
        }
        EXPECT_EQ(bytes(0, "T DSP1 Protection cd RTLOG_ENABLE"), std::vector<uint8_t>(4, 0));
    }
}

TEST_F(TvoxspJsonTest, MonitorSamplesTheRegistersItIsGiven)
{
    const tvox::test::CommandResult result = run_command(
        "{ { " TVOXSP_TOOL_PATH " --json monitor 0x2020 --count 2 --interval 10 8 --changes; } "
        "2>/dev/null; }");
    ASSERT_EQ(result.status, 0) << result.output;
    const std::vector<Json::Value> lines = json_lines(result.output);
    // --changes: the registers stay as they are, so the second sample is not printed.
    ASSERT_GE(lines.size(), 2u) << result.output;
    const Json::Value &registers = lines[0]["registers"];
    ASSERT_EQ(registers.size(), 2u);
    EXPECT_EQ(registers[0]["register"].asUInt(), 0x2020u);
    EXPECT_EQ(registers[1]["register"].asUInt(), 8u);
    EXPECT_EQ(registers[0]["channels"][0]["name"].asString(), "T");
    EXPECT_EQ(lines.back()["type"].asString(), "end");
    // Text mode: the time of day on each sample; CSV with a header line for the live log.
    const std::string text =
        run_command(TVOXSP_TOOL_PATH " monitor 0x2020 --count 1 --interval 10").output;
    EXPECT_EQ(text.find(':'), 2u) << text;
    const std::string csv =
        run_command("{ { " TVOXSP_TOOL_PATH " rtlog --count 2 --interval 10 --csv -o " + sim_dir() +
                    "/copy.csv; } 2>/dev/null; }")
            .output;
    EXPECT_TRUE(csv.starts_with("t_ms,T_c1,T_c1_max,T_c3,T_c3_max,T_reg,T_reg_max,T_active,B_c1"))
        << csv;
    std::ifstream copy(sim_dir() + "/copy.csv");
    const std::string copied(std::istreambuf_iterator<char>(copy), {});
    EXPECT_TRUE(csv.starts_with(copied)) << copied;
    EXPECT_EQ(std::count(copied.begin(), copied.end(), '\n'), 3);
}

} // namespace

namespace
{

// Every control tvoxsp lists holds, value for value, what the simulator stores; get by id and
// set agree with it.
TEST_F(TvoxspJsonTest, ControlsGetAndSetShowTheSimulatorsValues)
{
    preset_enum(0, "T PCM Source", "DSP");
    const Json::Value listing = checked("controls -D 0", 0);
    EXPECT_EQ(listing["card"].asInt(), 0);
    const Json::Value &controls = listing["controls"];
    ASSERT_GT(controls.size(), 20u);
    for (Json::ArrayIndex i = 0; i < controls.size(); ++i) {
        const Json::Value &control = controls[i];
        const std::string name = control["name"].asString();
        SCOPED_TRACE(name);
        EXPECT_EQ(control["id"].asUInt(), i);
        ASSERT_EQ(control["values"].size(), control["count"].asUInt());
        const std::string type = control["type"].asString();
        for (Json::ArrayIndex v = 0; v < control["values"].size(); ++v) {
            const Json::Value &value = control["values"][v];
            if (type == "ENUM")
                EXPECT_EQ(value.asString(), enum_item(0, name, v));
            else if (type == "BYTE")
                EXPECT_EQ(value.asUInt(), bytes(0, name)[v]);
            else
                EXPECT_EQ(value.asInt64(), int_values(0, name)[v]);
        }
    }
    const Json::Value source = checked("get 1", 0);
    EXPECT_EQ(source["name"].asString(), "T PCM Source");
    EXPECT_EQ(source["values"][0].asString(), "DSP");
    EXPECT_EQ(source["items"], controls[1]["items"]);
    EXPECT_EQ(checked("controls --names", 0)["names"].size(), controls.size());

    const Json::Value set = checked("set 'SPK Digital PCM Volume' 0x10 020", 0);
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"), (std::vector<long>{16, 20}));
    EXPECT_EQ(set["values"][1].asInt(), 20);
    EXPECT_LE(set["min"].asInt(), 16);
    checked("get -D 7 1", 3, "no-device");
    // tvoxsim numbers the controls as tinymix and tvoxsp do.
    std::istringstream shown(tool("show 0").output);
    size_t listed = 0;
    for (std::string line; std::getline(shown, line);) {
        std::istringstream words(line);
        unsigned id = 0;
        if (!(words >> id))
            continue;
        ASSERT_LT(id, controls.size()) << line;
        EXPECT_EQ(line.find("  " + controls[id]["name"].asString() + " "), 5u) << line;
        ++listed;
    }
    EXPECT_EQ(listed, controls.size());
}

} // namespace

namespace
{

// The engineering commands report what they read, wrote, applied or judged.
TEST_F(TvoxspJsonTest, EngineeringCommandsReportWhatTheyDid)
{
    const Json::Value written = checked("reg write 0x2020 9", 0);
    EXPECT_EQ(written["register"].asUInt(), 0x2020u);
    EXPECT_EQ(written["written"].asUInt(), 9u);
    const Json::Value read = checked("reg read 8224", 0);
    ASSERT_EQ(read["channels"].size(), 2u);
    for (const Json::Value &channel : read["channels"])
        EXPECT_EQ(channel["value"].asUInt(), 9u) << channel["name"];
    const Json::Value updated = checked("reg update 0x2020 0x1 0", 0);
    EXPECT_EQ(updated["channels"][1]["value"].asUInt(), 8u);

    EXPECT_EQ(checked("info", 0)["channels"][1]["name"].asString(), "B");
    const Json::Value steps = checked("path --show amp_off", 0)["steps"];
    ASSERT_FALSE(steps.empty());
    EXPECT_EQ(steps[0]["control"].asString(), "T PCM Source");
    preset_ints(0, "T AMP Enable Switch", {1});
    EXPECT_EQ(checked("path amp_off", 0)["path"].asString(), "amp_off");
    EXPECT_EQ(enum_item(0, steps[0]["control"].asString()), steps[0]["value"].asString());
    EXPECT_EQ(int_values(0, "T AMP Enable Switch"), std::vector<long>{0});
    EXPECT_EQ(checked("module config", 0)["types"].size(), 2u);
    EXPECT_EQ(checked("bypass T on", 0)["channel"].asString(), "T");
    // Options after the positional words.
    EXPECT_TRUE(checked("swap on --dsp", 0)["dsp"].asBool());
    EXPECT_EQ(checked("get 'T DSP1 Protection cd RTLOG_COUNT' --dsp -D 0", 0)["dsp_value"].asInt(),
              0);

    const std::string good = folder_file("good.txt", "5,100,200,300,4292077319\n");
    const Json::Value check = checked("tuning check " + good, 0);
    EXPECT_EQ(check["kind"].asString(), "delta");
    EXPECT_TRUE(check["loads"].asBool());
    EXPECT_EQ(check["blocks"][0]["crc"].asUInt(), 4292077319u);
    EXPECT_EQ(checked("tuning delta " + good + " --force", 0)["sent_blocks"].asUInt(), 1u);
    const std::string bad = folder_file("bad.txt", "5,100,200,300,1\n");
    const Json::Value refused = checked("tuning check " + bad, 1, "failed");
    EXPECT_FALSE(refused["loads"].asBool());
    EXPECT_FALSE(refused["blocks"][0]["ok"].asBool());
    EXPECT_NE(refused["error"]["message"].asString().find("line 1: CRC"), std::string::npos);
    ASSERT_EQ(tool("driver fault absent").status, 0);
    checked("module on", 3, "no-device");
}

} // namespace

namespace
{

// A station tells the failures of a measurement apart by the exit status alone; the document
// names the same class and says why.
TEST_F(TvoxspJsonTest, EachFailureClassHasItsStatus)
{
    const struct {
        std::string fault; // tvoxsim arguments
        std::string command;
        int status;
        std::string error_class;
        std::string message;
    } cases[] = {
        {"speaker B --fault shorted", "calibrate", 5, "measurement", "out of bounds"},
        {"persist full", "calibrate", 6, "storing", "storing failed"},
        {"control refuse 'B DSP Set CAL_R'", "calibrate", 7, "applying", "applying failed"},
        {"control refuse 'T PCM Source'", "bypass on", 7, "applying", "a control refused"},
        {"driver fault ioctl fetch", "slot read", 1, "failed", "slot cannot be read"},
        {"driver fault absent", "tuning delta FILE", 3, "no-device", "cannot open"},
        {"control remove 'T AMP WR Registers'", "reg read 0x2020", 3, "no-device",
         "register control"},
    };
    const std::string file = folder_file("delta.txt", "5,100,200,300,4292077319\n");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        preset_ints(0, "B DSP Set CAL_R", {8391}); // not what the bottom speaker measures
        ASSERT_EQ(tool(c.fault).status, 0);
        std::string command = c.command;
        if (const size_t at = command.find("FILE"); at != std::string::npos)
            command.replace(at, 4, file);
        const Json::Value document = checked(command, c.status, c.error_class);
        EXPECT_NE(document["error"]["message"].asString().find(c.message), std::string::npos)
            << document["error"]["message"];
        for (const char *undo :
             {"speaker B --fault none", "persist normal", "control restore", "driver fault none"})
            ASSERT_EQ(tool(undo).status, 0) << undo;
    }
    preset_ints(0, "B AMP Active Status", {1});
    checked("calibrate", 4, "busy");
}

} // namespace
