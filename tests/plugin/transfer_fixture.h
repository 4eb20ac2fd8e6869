// Round trips through the emulator, shared by the light and the heavy transfer tests.
#pragma once

#include <random>

#include "backup/error.h"
#include "emulated_drive.h"

using namespace TAVO::Backup;

inline std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(gen());
    return s;
}

class TransferTest : public EmulatedDriveTest {
  protected:
    void roundTrip(size_t size) {
        SCOPED_TRACE(size);
        std::string content = randomBytes(size, static_cast<unsigned>(size));
        std::string local = writeLocal("up", content);
        std::string name = "f" + std::to_string(size);
        FileInfo sent(name);
        long progressed = 0;
        auto progress = [&](long delta) {
            progressed += delta;
            return true;
        };
        ASSERT_TRUE(agent->sendFile(local, name, progress, true, sent)) << getError();
        EXPECT_EQ(name, sent.getRpath());
        EXPECT_TRUE(sent.isRegType());
        EXPECT_EQ(static_cast<int64_t>(size), sent.getSize());
        EXPECT_GT(sent.getMtime(), 0);
        // The bytes themselves are compared after the download.
        auto stored = drive->lookup(targetId, name);
        ASSERT_EQ(1u, stored.size());
        EXPECT_EQ(stored[0].md5, sent.getChecksum());

        std::string down = localPath("down" + std::to_string(size));
        FileInfo got;
        ASSERT_TRUE(agent->recvFile(name, down, TransferAgent::ProgressHook(), got)) << getError();
        EXPECT_TRUE(fileExists(down) && readFile(down) == content);
        EXPECT_EQ(0, countTempFilesBeside(down));
        if (size > 0) {
            EXPECT_EQ(static_cast<int64_t>(size), got.getSize());
            EXPECT_EQ(stored[0].md5, got.getChecksum());
            EXPECT_EQ(sent.getMtime(), got.getMtime());
        } else {
            EXPECT_FALSE(got.isRegType());  // an empty object leaves info cleared
        }
    }
};
