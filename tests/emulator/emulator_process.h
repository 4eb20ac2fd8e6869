// A drive_emulator process on real pipes, for the emulator's own tests: the
// test writes request lines to its stdin and reads its stdout line by line,
// as the plug-in's channel does.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>  // operator<< for Json::Value in test messages
#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/pipe_open.h"
#include "drive_control.h"
#include "support/files.h"

namespace EmulatorTest {

// Variables set (value) or removed (nullopt) on top of the valid environment
// the plug-in hands the drive agent.
using Env = std::map<std::string, std::optional<std::string>>;

class EmulatorProcess {
  public:
    // Starts the emulator on `dataFolder`, unless `env` names another; or
    // `binary` (another drive agent) in its place, with the same environment.
    explicit EmulatorProcess(std::string const& dataFolder, Env const& env = {},
                             std::string const& binary = "");
    // Closes both pipes and reaps it.
    ~EmulatorProcess();
    EmulatorProcess(EmulatorProcess const&) = delete;
    EmulatorProcess& operator=(EmulatorProcess const&) = delete;

    // The next line without its line feed; nullopt at end of output or after
    // 20 s without a complete line.
    std::optional<std::string> readLine();
    void writeLine(std::string const& line);
    void send(Json::Value const& request);
    // The next line parsed as JSON; null when it is not JSON or missing.
    Json::Value receive();
    Json::Value call(Json::Value const& request) {
        send(request);
        return receive();
    }
    // Reads up to and including the final answer of a request: past progress
    // messages, to the first failure, or to the end of output (a null).
    std::vector<Json::Value> answers();
    std::vector<Json::Value> transfer(Json::Value const& request) {
        send(request);
        return answers();
    }
    // Closes stdin and waits; the exit status, or 128 + signal.
    int finish();
    // Closes both pipe ends without waiting, as a client that gives up does.
    void hangUp();
    // What was read after the last complete line.
    std::string const& unfinished() const { return _buffer; }
    pid_t pid() const { return _pid; }

  private:
    pid_t _pid = -1;
    TAVOPipe* _pipe = nullptr;
    std::string _buffer;
    std::optional<int> _status;
};

using TestSupport::readFile;
using TestSupport::writeFile;
// A request object from (member, value) pairs.
Json::Value req(std::initializer_list<std::pair<char const*, std::string>> members);
// An uploadFile request: the file `input` as `name` in `parent`.
Json::Value upload(std::string const& parent, std::string const& input,
                   std::string const& name = "f");

// A fresh account in a private folder, removed afterwards.
class AccountTest : public ::testing::Test {
  protected:
    void SetUp() override { drive.emplace(DriveEmulator::Drive::init(data)); }
    void TearDown() override;
    // An emulator started on the account; the test fails if it does not say "start".
    std::unique_ptr<EmulatorProcess> start();
    void changeSettings(std::function<void(DriveEmulator::Settings&)> const& change);

    std::string data = TestSupport::makeTempFolder("emulator-test");
    std::optional<DriveEmulator::Drive> drive;
};

}  // namespace EmulatorTest
