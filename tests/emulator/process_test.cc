// Emulator processes as the plug-in starts and stops them: the environment
// check, pending blobs of uploads that never finished, and several processes
// writing to one data folder at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class Process : public AccountTest {
  protected:
    std::vector<std::string> pending() const {
        std::vector<std::string> names;
        for (auto const& f : std::filesystem::directory_iterator(data + "/blobs/tmp")) {
            names.push_back(f.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

}  // namespace

// The first line says why an emulator cannot serve, without leaking secrets.
TEST_F(Process, EnvironmentAndDataFolderDecideTheFirstLine) {
    std::string const empty = data + "/empty";
    ::mkdir(empty.c_str(), 0755);
    struct Case {
        Env env;
        std::string line;  // expected to be part of the first line
    } const cases[] = {
        {{{"GOOGLEDRIVE_ACCESS_TOKEN", std::string()}}, "start"},  // may be empty
        {{{"GOOGLEDRIVE_REFRESH_TOKEN", std::string("secret!")}}, "is not a valid base64 string"},
        {{{"GOOGLEDRIVE_CLIENT_ID", std::nullopt}},
         "missing environment variable GOOGLEDRIVE_CLIENT_ID"},
        {{{"TAVO_USER_AGENT", std::string()}}, "missing environment variable TAVO_USER_AGENT"},
        {{{"DRIVE_EMULATOR_DATA", std::nullopt}, {"TAVO_ROOT", std::nullopt}}, "no data folder"},
        {{{"DRIVE_EMULATOR_DATA", empty}}, "no emulated account"},
    };
    for (auto const& c : cases) {
        EmulatorProcess p(data, c.env);
        std::string line = p.readLine().value_or("<nothing>");
        EXPECT_NE(std::string::npos, line.find(c.line)) << line;
        EXPECT_EQ(std::string::npos, line.find("secret!"));
        EXPECT_EQ(c.line != "start", p.finish() != 0) << c.line;
    }
    EXPECT_FALSE(Drive::hasAccount(empty));
    EXPECT_EQ(0, drive->countRequests());
}

TEST_F(Process, AStartSweepsPendingBlobsOfDeadWritersOnly) {
    pid_t dead = ::fork();
    if (dead == 0) ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    std::string const mine = std::to_string(::getpid()) + "-live";
    for (auto const& name : {std::to_string(dead) + "-dead", mine, std::string("unnamed")}) {
        writeFile(data + "/blobs/tmp/" + name, "partial");
    }
    Drive::open(data);
    EXPECT_EQ((std::vector<std::string>{mine, "unnamed"}), pending());
}

// An upload blocked on a pipe is stopped while its blob is half written.
TEST_F(Process, AnUploadStoppedHalfWayLeavesNoPendingBlob) {
    for (bool terminate : {false, true}) {
        SCOPED_TRACE(terminate ? "SIGTERM" : "client hung up");
        std::string const fifo = data + "/fifo";
        ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
        auto emulator = start();
        emulator->send(upload("root", fifo));
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
            // The client is gone; the next chunk tells the emulator so, unless
            // it noticed first and left (then the write finds no reader).
            emulator->hangUp();
            ::signal(SIGPIPE, SIG_IGN);
            ssize_t put = ::write(writer, chunk.data(), chunk.size());
            EXPECT_TRUE(put == ssize_t(chunk.size()) || (put < 0 && errno == EPIPE)) << errno;
        }
        ::close(writer);
        EXPECT_EQ(terminate ? 128 + SIGTERM : 0, emulator->finish());
        EXPECT_TRUE(pending().empty());
        EXPECT_TRUE(drive->children("root").empty());
        ::unlink(fifo.c_str());
    }
}

// Nothing may be lost, duplicated or half-applied while two processes and
// the control library write at once.
TEST_F(Process, TwoProcessesAndTheControlLibraryWriteAtOnce) {
    constexpr int kFolders = 40, kUploads = 10;
    std::string target = drive->mkdir("root", "shared");
    writeFile(data + "/in", "0123456789");
    auto a = start(), b = start();
    // Queue every request in both pipes before reading anything, so the two
    // processes really do compete for the database.
    for (auto* p : {a.get(), b.get()}) {
        for (int i = 0; i < kFolders + kUploads; ++i) {
            p->send(i < kFolders
                        ? req({{"fn", "createFolder"}, {"name", "n"}, {"parentId", target}})
                        : upload(target, data + "/in"));
        }
    }
    std::thread control([&] {
        Drive own = Drive::open(data);
        for (int i = 0; i < 20; ++i) own.put(target, "c", "abc");
    });
    std::set<std::string> ids;
    for (auto* p : {a.get(), b.get()}) {
        for (int i = 0; i < kFolders + kUploads; ++i) {
            Json::Value m = p->answers().back();
            EXPECT_TRUE(m["success"].asBool()) << m;
            ids.insert(m["id"].asString());
        }
    }
    control.join();
    EXPECT_EQ(2u * (kFolders + kUploads), ids.size());
    EXPECT_EQ(2u * (kFolders + kUploads) + 20, drive->children(target).size());
    EXPECT_EQ(2 * kUploads * 10 + 20 * 3, drive->account().usedSize);
}
