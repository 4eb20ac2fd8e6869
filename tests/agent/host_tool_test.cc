// The host tool with --service drive: the plug-in starts drive_agent, which
// talks to the REST fake, and a person's round trip works end to end; the
// tool obtains the refresh token through the loopback flow, the test playing
// the browser.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <utility>

#include "agent_fixture.h"

using namespace AgentTest;

namespace {

char const kDrive[] = "GDRIVE_REFRESH_TOKEN=MS8vMGdSZWZyZXNoVG9rZW4= GDRIVE_SERVICE=drive";

// Starts gdrive_host with `args` against the fake, `env` (VAR=value ...) set.
FILE* start(AgentOnFake const& f, std::string const& args, std::string const& env) {
    std::string command = "env -u TAVO_ROOT -u GDRIVE_PROFILE HOME=" + f.scratch +
                          " DRIVE_AGENT_CONF=" + f.scratch +
                          "/drive_agent.conf GDRIVE_DATA_DIR=" + f.scratch + "/data " + env + " " +
                          GDRIVE_HOST + " " + args + " 2>&1";
    return ::popen(command.c_str(), "r");
}

// The rest of the tool's output after `output`, and its exit status.
std::pair<int, std::string> finish(FILE* pipe, std::string output = "") {
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    int status = pipe ? ::pclose(pipe) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::pair<int, std::string> host(AgentOnFake const& f, std::string const& args,
                                 std::string const& env = kDrive) {
    return finish(start(f, "-q " + args, env));
}

// The agent's configuration names the fake's consent page and a client.
void addClient(AgentOnFake& f) {
    f.fake->acceptClient("42.apps", "s");
    std::ofstream(f.scratch + "/drive_agent.conf", std::ios::app)
        << "auth_url = " << f.fake->url() << "/auth\nclient_id = 42.apps\nclient_secret = s\n";
}

// `gdrive_host authorize` with the profile `profile`, read up to the address
// it asks the person to open.
struct Authorize {
    Authorize(AgentOnFake& f, std::string const& profile, std::string const& args = "") {
        pipe = start(f, "authorize " + args, "GDRIVE_PROFILE=" + profile);
        char line[4096];
        while (pipe && url.empty() && fgets(line, sizeof line, pipe)) {
            output += line;
            if (std::string(line).find("code_challenge=") != std::string::npos) {
                url = line;
                url = url.substr(url.find("http"), url.find('\n') - url.find("http"));
            }
        }
        httplib::detail::parse_query_text(url.substr(url.find('?') + 1), params);
    }
    // A tool left waiting by a failed test is sent away.
    ~Authorize() {
        if (pipe) redirect("error=test_failed&state=" + param("state"));
        finish(pipe);
    }
    // The browser comes back to the tool with `query`.
    int redirect(std::string const& query) {
        std::string uri = param("redirect_uri");
        if (uri.empty()) return -1;
        httplib::Client loopback("127.0.0.1", std::stoi(uri.substr(uri.rfind(':') + 1)));
        auto res = loopback.Get(("/?" + query).c_str());
        return res ? res->status : -1;
    }
    std::string param(char const* name) const {
        auto found = params.find(name);
        return found == params.end() ? "" : found->second;
    }

    FILE* pipe = nullptr;
    std::string output, url;
    httplib::Params params;
};

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

TEST(HostTool, AuthorizeStoresTheRefreshTokenForTheNextCommands) {
    AgentOnFake f;
    std::string profile = f.scratch + "/profile";
    addClient(f);
    writeFile(profile, "# mine\ncontainer = \"Mine\"\nrefresh_token = \"b2xk\"\n");
    // The account consented to this client before: Google hands out a new
    // refresh token only to a request that asks for consent again.
    httplib::Client earlier("127.0.0.1", f.fake->port());
    auto before = earlier.Get(
        "/auth?response_type=code&client_id=42.apps&redirect_uri=http://127.0.0.1:9/&scope="
        "https%3A%2F%2Fwww.googleapis.com%2Fauth%2Fdrive&access_type=offline&"
        "code_challenge_method=S256&code_challenge=abc&state=s");
    ASSERT_TRUE(before && before->status == 302);
    Authorize run(f, profile);
    ASSERT_FALSE(run.url.empty()) << run.output;
    // The browser: the consent page sends it back with a code.
    httplib::Client fake("127.0.0.1", f.fake->port());
    auto consent = fake.Get(run.url.substr(run.url.find("/auth")).c_str());
    ASSERT_TRUE(consent && consent->status == 302) << run.url;
    std::string back = consent->get_header_value("Location");
    EXPECT_EQ(200, run.redirect(back.substr(back.find('?') + 1)));
    auto [status, output] = finish(std::exchange(run.pipe, nullptr), run.output);
    ASSERT_EQ(0, status) << output;
    EXPECT_NE(std::string::npos, output.find("stored in " + profile)) << output;
    EXPECT_EQ(std::string::npos, output.find("RefreshToken")) << output;
    EXPECT_EQ(std::string::npos, output.find("MS8vMGdSZWZyZXNoVG9rZW4")) << output;

    struct stat info {};
    ASSERT_EQ(0, ::stat(profile.c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 0777);
    EXPECT_EQ(
        "# mine\ncontainer = \"Mine\"\nrefresh_token = \"MS8vMGdSZWZyZXNoVG9rZW4=\"\n"
        "service = \"drive\"\n",
        readFile(profile));
    auto init = host(f, "init", "GDRIVE_PROFILE=" + profile);
    EXPECT_EQ(0, init.first) << init.second;
    EXPECT_EQ(std::string::npos, init.second.find("unknown key")) << init.second;
    EXPECT_FALSE(f.drive->idByPath("/Mine/nas1.hbk").empty());
}

TEST(HostTool, AuthorizeStoresNothingWhenTheGrantFails) {
    struct Case {
        char const* name;
        std::string query;  // STATE: the tool's; empty: the browser never comes back
        int exitCode;
        char const* words;
    } const cases[] = {
        {"denied", "error=access_denied&state=STATE", 7, "access was denied in the browser"},
        {"foreign", "code=4/0abc&state=other", 1, "(state mismatch)"},
        {"refused", "code=4/0forged&state=STATE", 7,
         "the token endpoint refused the authorization code: invalid_grant"},
        {"timeout", "", 1, "no answer from the browser within 1 s"},
    };
    AgentOnFake f;
    std::string profile = f.scratch + "/profile";
    writeFile(profile, "container = \"Mine\"\n");
    // A client without its secret: the exchange could only fail.
    std::ofstream(f.scratch + "/drive_agent.conf", std::ios::app) << "client_id = 42.apps\n";
    auto unsent = host(f, "authorize --timeout 1", "GDRIVE_PROFILE=" + profile);
    EXPECT_EQ(2, unsent.first);
    EXPECT_NE(std::string::npos, unsent.second.find("names no client_secret")) << unsent.second;
    addClient(f);
    for (Case const& c : cases) {
        Authorize run(f, profile, c.query.empty() ? "--timeout 1" : "");
        std::string query = c.query;
        if (query.find("STATE") != std::string::npos)
            query.replace(query.find("STATE"), 5, run.param("state"));
        if (!query.empty()) {
            EXPECT_EQ(200, run.redirect(query)) << c.name;
        }
        auto [status, output] = finish(std::exchange(run.pipe, nullptr), run.output);
        EXPECT_EQ(c.exitCode, status) << c.name << ": " << output;
        EXPECT_NE(std::string::npos, output.find(c.words)) << c.name << ": " << output;
        EXPECT_EQ("container = \"Mine\"\n", readFile(profile)) << c.name;
    }
}

TEST(HostTool, GoogleNativeFilesAreNamedAsSkippedNotRestoredOrCompared) {
    AgentOnFake f;
    writeFile(f.scratch + "/local", "stored");
    ASSERT_EQ(0, host(f, "init").first);
    ASSERT_EQ(0, host(f, "put " + f.scratch + "/local Pool/a").first);
    std::string pool = f.drive->idByPath("/Backups/nas1.hbk/Pool");
    f.fake->makeNative(f.drive->put(pool, "doc", "editor data"),
                       "application/vnd.google-apps.document");
    auto restore = host(f, "restore Pool " + f.scratch + "/back");
    EXPECT_EQ(0, restore.first) << restore.second;
    EXPECT_NE(std::string::npos, restore.second.find("restore: skipped doc (a Google Docs"))
        << restore.second;
    EXPECT_EQ("stored", readFile(f.scratch + "/back/a"));
    EXPECT_FALSE(std::ifstream(f.scratch + "/back/doc").good());
    writeFile(f.scratch + "/back/doc", "a local file of that name");
    auto check = host(f, "check " + f.scratch + "/back Pool");
    EXPECT_EQ(0, check.first) << check.second;
    EXPECT_NE(std::string::npos, check.second.find("check: skipped doc")) << check.second;
    EXPECT_EQ(std::string::npos, check.second.find("differs")) << check.second;
}

TEST(HostTool, DrivesDailyUploadLimitStopsTheRunAtOnceInWords) {
    AgentOnFake f;
    std::filesystem::create_directory(f.scratch + "/tree");
    for (char const* name : {"a", "b", "c"}) writeFile(f.scratch + "/tree/" + name, name);
    ASSERT_EQ(0, host(f, "init").first);
    f.fake->addFailure(
        {"files.create upload", -1, 403, "userRateLimitExceeded", "User rate limit exceeded."});
    auto copy = host(f, "copy --transfers 1 " + f.scratch + "/tree Pool",
                     std::string(kDrive) + " TAVO_AGENT_PAUSE_UNIT_MS=1");
    EXPECT_EQ(7, copy.first) << copy.second;
    EXPECT_NE(std::string::npos,
              copy.second.find("Drive's daily upload limit reached; run again tomorrow"))
        << copy.second;
    // One upload tried, neither retried nor followed by the others.
    EXPECT_EQ(1, f.fake->counters().failuresServed.load()) << copy.second;
}

TEST(HostTool, ANameThatIsNotUtf8IsBackedUpCheckedAndRestoredByteForByte) {
    AgentOnFake f;
    std::string const name = "latin1-\xe9t\xe9";
    std::filesystem::create_directory(f.scratch + "/tree");
    writeFile(f.scratch + "/tree/" + name, "old share");
    ASSERT_EQ(0, host(f, "init").first);
    auto copy = host(f, "copy " + f.scratch + "/tree Pool");
    ASSERT_EQ(0, copy.first) << copy.second;
    auto check = host(f, "check --json " + f.scratch + "/tree Pool");
    EXPECT_EQ(0, check.first) << check.second;
    Json::Value report;
    EXPECT_TRUE(Json::Reader().parse(check.second, report)) << check.second;
    auto restore = host(f, "restore Pool " + f.scratch + "/back");
    ASSERT_EQ(0, restore.first) << restore.second;
    EXPECT_EQ("old share", readFile(f.scratch + "/back/" + name));
}
