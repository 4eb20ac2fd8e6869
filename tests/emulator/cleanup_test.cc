// Pending blobs of uploads that never finished: swept when a process starts
// if their writer is dead, and removed at once by a writer whose client went
// away or that is told to terminate.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class PendingBlobs : public AccountTest {
  protected:
    std::vector<std::string> pending() const {
        std::vector<std::string> names;
        if (DIR* dir = ::opendir((data + "/blobs/tmp").c_str())) {
            while (dirent* e = ::readdir(dir)) {
                if (e->d_name[0] != '.') names.push_back(e->d_name);
            }
            ::closedir(dir);
        }
        return names;
    }
};

TEST_F(PendingBlobs, AStartSweepsThoseOfDeadWritersOnly) {
    pid_t dead = ::fork();
    if (dead == 0) ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    std::string const mine = std::to_string(::getpid()) + "-live";
    writeFile(data + "/blobs/tmp/" + std::to_string(dead) + "-dead", "partial");
    writeFile(data + "/blobs/tmp/" + mine, "partial");
    writeFile(data + "/blobs/tmp/unnamed", "recent, writer unknown");
    Drive::open(data);
    auto left = pending();
    std::sort(left.begin(), left.end());
    EXPECT_EQ((std::vector<std::string>{mine, "unnamed"}), left);
}

// An upload blocked on a pipe is stopped while its blob is half written.
TEST_F(PendingBlobs, AnUploadStoppedHalfWayLeavesNone) {
    for (bool terminate : {false, true}) {
        SCOPED_TRACE(terminate ? "SIGTERM" : "client hung up");
        std::string const fifo = data + "/fifo";
        ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
        auto emulator = start();
        emulator->send(req(
            {{"fn", "uploadFile"}, {"name", "big"}, {"parentId", "root"}, {"inputPath", fifo}}));
        int writer = ::open(fifo.c_str(), O_WRONLY);
        std::string const chunk(1 << 16, 'x');
        ASSERT_EQ(ssize_t(chunk.size()), ::write(writer, chunk.data(), chunk.size()));
        for (int i = 0; i < 500 && pending().empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_EQ(1u, pending().size());
        if (terminate) {
            ::kill(emulator->pid(), SIGTERM);
        } else {
            // The client is gone; the next chunk tells the emulator so.
            emulator->hangUp();
            ASSERT_EQ(ssize_t(chunk.size()), ::write(writer, chunk.data(), chunk.size()));
        }
        ::close(writer);
        EXPECT_EQ(terminate ? 128 + SIGTERM : 0, emulator->finish());
        EXPECT_TRUE(pending().empty());
        EXPECT_TRUE(drive->lookup("root", "big").empty());
        ::unlink(fifo.c_str());
    }
}

}  // namespace
