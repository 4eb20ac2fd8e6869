// Round trips through the emulator, shared by the light and the heavy transfer tests.
#pragma once

#include <openssl/evp.h>

#include <random>

#include "backup/error.h"
#include "emulated_drive.h"

using namespace TAVO::Backup;

inline std::string md5Hex(std::string const& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
    static char const hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        unsigned char c = digest[i];
        out += hex[c >> 4];
        out += hex[c & 15];
    }
    return out;
}

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
        EXPECT_EQ(md5Hex(content), sent.getChecksum());
        EXPECT_GT(sent.getMtime(), 0);

        auto stored = drive->lookup(targetId, name);
        ASSERT_EQ(1u, stored.size());
        EXPECT_EQ(md5Hex(content), stored[0].md5);

        std::string down = localPath("down" + std::to_string(size));
        FileInfo got;
        ASSERT_TRUE(agent->recvFile(name, down, TransferAgent::ProgressHook(), got)) << getError();
        EXPECT_TRUE(fileExists(down) && readFile(down) == content);
        EXPECT_EQ(0, countTempFilesBeside(down));
        if (size > 0) {
            EXPECT_EQ(static_cast<int64_t>(size), got.getSize());
            EXPECT_EQ(md5Hex(content), got.getChecksum());
            EXPECT_EQ(sent.getMtime(), got.getMtime());
        } else {
            EXPECT_FALSE(got.isRegType());  // an empty object leaves info cleared
        }
    }
};
