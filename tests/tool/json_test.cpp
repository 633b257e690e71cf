// tvoxsp --json: every command's document parsed with jsoncpp, its envelope matching the exit
// status, and the measured and stored values matching the simulator's state.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <string>

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
    EXPECT_EQ(report["channels"][1]["dsp"]["cal_r"].asInt(), 9000);
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
