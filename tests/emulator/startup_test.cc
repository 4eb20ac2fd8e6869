// Starting the emulator the way the plug-in starts the drive agent: its
// environment check, finding the data folder, and the laid-out agent root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class Startup : public ::testing::Test {
  protected:
    void TearDown() override { removeTree(base); }

    // The first line and exit status of an emulator that is not expected to serve.
    std::pair<std::string, int> refusal(Launch launch) {
        EmulatorProcess p(data, std::move(launch));
        std::string line = p.readLine().value_or("<nothing>");
        return {line, p.finish()};
    }

    std::string base = makeTempFolder("emulator-startup");
    std::string data = base + "/data";
};

}  // namespace

TEST_F(Startup, EnvironmentDecidesTheFirstLine) {
    Drive::init(data);
    {
        Launch launch;
        launch.env["GOOGLEDRIVE_ACCESS_TOKEN"] = std::string();  // may be empty
        EmulatorProcess ok(data, launch);
        EXPECT_TRUE(ok.handshake());
        EXPECT_EQ(0, ok.finish());
    }
    Launch badToken;
    badToken.env["GOOGLEDRIVE_REFRESH_TOKEN"] = std::string("secret token!");
    auto [line, status] = refusal(badToken);
    EXPECT_NE(std::string::npos, line.find("is not a valid base64 string"));
    EXPECT_EQ(std::string::npos, line.find("secret token!"));
    EXPECT_NE(0, status);

    for (char const* name :
         {"GOOGLEDRIVE_CLIENT_ID", "GOOGLEDRIVE_CLIENT_SECRET", "TAVO_USER_AGENT"}) {
        SCOPED_TRACE(name);
        Launch missing;
        missing.env[name] = std::nullopt;
        auto [reason, code] = refusal(missing);
        EXPECT_EQ("missing environment variable " + std::string(name), reason);
        EXPECT_NE(0, code);
    }
    EXPECT_EQ(0, Drive::open(data).countRequests());
}

TEST_F(Startup, WithoutAnAccountItExplainsAndStops) {
    Launch noData;
    noData.env["DRIVE_EMULATOR_DATA"] = std::nullopt;
    noData.env["TAVO_ROOT"] = std::nullopt;
    auto [line, status] = refusal(noData);
    EXPECT_NE(std::string::npos, line.find("no data folder"));
    EXPECT_NE(0, status);
    // A folder without an account is refused too, and left without one.
    ::mkdir(data.c_str(), 0755);
    auto [empty, code] = refusal({});
    EXPECT_NE(std::string::npos, empty.find("no emulated account"));
    EXPECT_NE(0, code);
    EXPECT_FALSE(Drive::hasAccount(data));
}

TEST_F(Startup, AgentRootRunsTheEmulatorAsPython) {
    std::string root = base + "/root";
    makeAgentRoot(root, data);
    EXPECT_TRUE(Drive::hasAccount(data));  // created on the way
    std::string python = root + kAgentProgram;
    struct stat st;
    EXPECT_EQ(0, ::stat((root + kAgentScript).c_str(), &st));

    // Run as "$root/usr/bin/python drive_agent.py", finding the data folder
    // beside itself (no DRIVE_EMULATOR_DATA).
    std::string folder = Drive::open(data).mkdir("root", "seen");
    Launch asPython;
    asPython.program = python;
    asPython.args = {kAgentScript};
    asPython.env["DRIVE_EMULATOR_DATA"] = std::nullopt;
    Json::Value r;
    r["fn"] = "getObjectMeta";
    r["id"] = folder;
    {
        EmulatorProcess p("", asPython);
        ASSERT_TRUE(p.handshake());
        EXPECT_EQ("seen", p.call(r)["name"].asString());
    }
    // Started under its NAS name, it finds the file through $TAVO_ROOT.
    asPython.argv0 = kAgentProgram;
    asPython.env["TAVO_ROOT"] = root;
    {
        EmulatorProcess p("", asPython);
        ASSERT_TRUE(p.handshake());
        EXPECT_EQ("seen", p.call(r)["name"].asString());
    }
    // Laying the root out again keeps the account.
    makeAgentRoot(root, data);
    EXPECT_TRUE(Drive::open(data).exists(folder));
}
