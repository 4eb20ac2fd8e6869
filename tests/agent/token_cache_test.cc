// The access token drive agents of one grant share through a cache file:
// reused while it is good, never when it is not, dropped when refused.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <sstream>

#include "agent_fixture.h"

namespace AgentTest {
namespace {

namespace fs = std::filesystem;

Env const kNoHandshakeToken{{"GOOGLEDRIVE_ACCESS_TOKEN", std::string()}};

// One agent's answer to a metadata request.
bool oneRequest(AgentOnFake& onFake) {
    auto agent = onFake.start(kNoHandshakeToken);
    return agent->call(req({{"fn", "getObjectMeta"}, {"id", "root"}}))["success"].asBool();
}

std::string cacheFile(std::string const& folder) {
    for (auto const& entry : fs::directory_iterator(folder))
        if (entry.path().extension() == ".token") return entry.path().string();
    return folder + "/no-token-file";
}

TEST(TokenCache, OneTokenServesTheAgentsThatFollowUntilTheServiceRefusesIt) {
    AgentOnFake onFake;
    EXPECT_TRUE(oneRequest(onFake));
    EXPECT_TRUE(oneRequest(onFake));
    EXPECT_EQ(1, onFake.fake->counters().tokenGrants.load());
    // The cached token is refused (and no new one granted): the agent that
    // met the refusal takes it out of the file, so the next one never sends it.
    onFake.fake->revokeGrant();
    EXPECT_FALSE(oneRequest(onFake));
    EXPECT_FALSE(oneRequest(onFake));
    EXPECT_EQ(1, onFake.fake->counters().unauthorized.load());
}

TEST(TokenCache, AFileThatIsNotWhollyOursAndGoodIsIgnored) {
    AgentOnFake onFake;
    ASSERT_TRUE(oneRequest(onFake));
    std::string const path = cacheFile(onFake.scratch);
    std::string const written = readFile(path);
    Json::Value good;
    std::istringstream text(written);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &good, nullptr)) << written;
    long long const now = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
    auto rewrite = [&](char const* key, Json::Value value) {
        Json::Value changed = good;
        changed[key] = value;
        writeFile(path, Json::writeString(Json::StreamWriterBuilder(), changed));
    };
    struct Case {
        char const* what;
        std::function<void()> spoil;
        int grants;  // tokens fetched by the next agent
    } const cases[] = {
        {"as written", [] {}, 0},
        {"expired", [&] { rewrite("expires_at_ms", Json::Int64(now - 1000)); }, 1},
        {"near its end", [&] { rewrite("expires_at_ms", Json::Int64(now + 240000)); }, 1},
        {"beyond its life (clock set back)",
         [&] { rewrite("expires_at_ms", Json::Int64(now + 7200000)); }, 1},
        {"another grant's", [&] { rewrite("grant", std::string(64, '0')); }, 1},
        {"torn", [&] { writeFile(path, written.substr(0, written.size() / 2)); }, 1},
        {"readable by the group", [&] { chmod(path.c_str(), 0640); }, 1},
        {"owned by another user", [&] { EXPECT_EQ(0, chown(path.c_str(), 65534, 65534)); }, 1},
        {"a link to a good one",
         [&] {
             fs::rename(path, path + ".elsewhere");
             fs::create_symlink(path + ".elsewhere", path);
         },
         1},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove(path);
        writeFile(path, written);
        chmod(path.c_str(), 0600);
        c.spoil();
        int before = onFake.fake->counters().tokenGrants.load();
        EXPECT_TRUE(oneRequest(onFake));
        EXPECT_EQ(c.grants, onFake.fake->counters().tokenGrants.load() - before);
    }
    // Whatever the agent found, it left a good file of its own, for no one else.
    struct stat st;
    ASSERT_EQ(0, lstat(path.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_EQ(std::string::npos, readFile(path).find("1//0gRefreshToken"));
}

}  // namespace
}  // namespace AgentTest
