// Uploads and downloads through a proxy that drops the connection every so
// many bytes: the agent resumes where the service says it stands, sends
// little more than the file, and leaves one object with the right MD5. CI
// moves 64 MiB with a drop every 20 MiB; the heavy build 1 GiB, every 100 MiB.
#include <gtest/gtest.h>

#include "agent_fixture.h"

using namespace AgentTest;

namespace {

// The agent's upload chunk: a drop costs at most one of them.
constexpr std::int64_t kChunk = 32 * MiB;

class DroppedConnections : public ::testing::Test, public AgentOnFake {
  protected:
    DroppedConnections() : AgentOnFake(true) {}

    // Uploads `size` bytes into a new folder while the proxy drops the
    // connection every `cutEvery` bytes sent; checks the one stored object.
    void uploadThroughDrops(std::int64_t size, std::int64_t cutEvery) {
        std::string input = scratch + "/big";
        writePattern(input, size);
        auto agent = start();
        std::string folder = drive->mkdir(drive->rootId(), "F");
        proxy->cutEvery(cutEvery, 0);
        std::int64_t before = proxy->upstreamBytes();
        Json::Value last = agent->transfer(EmulatorTest::upload(folder, input, "big")).back();
        ASSERT_TRUE(last["success"].asBool()) << last;
        EXPECT_GE(proxy->cuts(), int(size / cutEvery) - 1);
        EXPECT_LE(proxy->upstreamBytes() - before, size * 105 / 100 + proxy->cuts() * kChunk);
        auto children = drive->children(folder);
        ASSERT_EQ(1u, children.size());
        EXPECT_EQ(fileMd5(input), children[0].md5);
        EXPECT_EQ(last["id"].asString(), children[0].id);
    }

    void downloadThroughDrops(std::int64_t size, std::int64_t cutEvery) {
        std::string input = scratch + "/big";
        writePattern(input, size, 7);
        std::string id = drive->putFile(drive->rootId(), "big", input);
        auto agent = start();
        proxy->cutEvery(0, cutEvery);
        std::int64_t before = proxy->downstreamBytes();
        Json::Value last = download(*agent, id);
        ASSERT_TRUE(last["success"].asBool()) << last;
        EXPECT_GE(proxy->cuts(), int(size / cutEvery) - 1);
        EXPECT_LE(proxy->downstreamBytes() - before, size * 105 / 100);
        EXPECT_EQ(fileMd5(input), fileMd5(scratch + "/out"));
    }
};

}  // namespace

// ctest knows tests by name: the heavy build's carry their own.
#ifdef AGENT_HEAVY_SIZES
using HeavyDroppedConnections = DroppedConnections;

TEST_F(HeavyDroppedConnections, UploadResumes) { uploadThroughDrops(1024 * MiB, 100 * MiB); }

TEST_F(HeavyDroppedConnections, DownloadResumes) { downloadThroughDrops(1024 * MiB, 100 * MiB); }
#else
TEST_F(DroppedConnections, UploadResumes) { uploadThroughDrops(64 * MiB, 20 * MiB); }

TEST_F(DroppedConnections, DownloadResumes) { downloadThroughDrops(64 * MiB, 20 * MiB); }
#endif
