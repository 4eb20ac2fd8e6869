// The host tool with --service drive: the plug-in starts drive_agent, which
// talks to the REST fake, and a person's round trip works end to end.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "agent_fixture.h"

using namespace AgentTest;

namespace {

// Runs gdrive_host with `args` against the fake; its exit status and output.
std::pair<int, std::string> host(AgentOnFake const& f, std::string const& args) {
    std::string command = "env -u TAVO_ROOT -u GDRIVE_PROFILE HOME=" + f.scratch +
                          " DRIVE_AGENT_CONF=" + f.scratch +
                          "/drive_agent.conf GDRIVE_DATA_DIR=" + f.scratch +
                          "/data GDRIVE_REFRESH_TOKEN=MS8vMGdSZWZyZXNoVG9rZW4= " + GDRIVE_HOST +
                          " --service drive -q " + args + " 2>&1";
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    int status = pipe ? ::pclose(pipe) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

}  // namespace

TEST(HostTool, RoundTripThroughTheDriveAgent) {
    AgentOnFake f;
    writePattern(f.scratch + "/local", 3 << 20);
    EXPECT_EQ(0, host(f, "init").first);
    auto put = host(f, "put " + f.scratch + "/local Pool/file");
    ASSERT_EQ(0, put.first) << put.second;
    std::string id = f.drive->idByPath("/Backups/nas1.hbk/Pool/file");
    EXPECT_EQ(fileMd5(f.scratch + "/local"), f.drive->stat(id).md5);
    auto get = host(f, "get Pool/file " + f.scratch + "/copy");
    ASSERT_EQ(0, get.first) << get.second;
    EXPECT_EQ(fileMd5(f.scratch + "/local"), fileMd5(f.scratch + "/copy"));
    // The service's refusals reach the person as the engine's codes.
    auto missing = host(f, "stat Pool/none");
    EXPECT_EQ(4, missing.first) << missing.second;
}
