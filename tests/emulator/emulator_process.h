// A drive_emulator process on real pipes, for the emulator's own tests: the
// test writes request lines to its stdin and reads its stdout line by line,
// as the plug-in's channel does.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>  // operator<< for Json::Value in test messages
#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "drive_control.h"

namespace EmulatorTest {

// The environment the plug-in hands the drive agent, with valid values.
std::map<std::string, std::optional<std::string>> agentEnvironment();

struct Launch {
    std::string program;  // default: the built emulator
    std::string argv0;    // default: `program`
    std::vector<std::string> args = {"/var/packages/x/drive_agent.py"};
    // Set (value) or removed (nullopt) on top of agentEnvironment(); the
    // variables of both that are not listed keep the test's environment.
    std::map<std::string, std::optional<std::string>> env;
};

class EmulatorProcess {
  public:
    // Starts the emulator on `dataFolder` (through DRIVE_EMULATOR_DATA, unless
    // `launch.env` says otherwise).
    explicit EmulatorProcess(std::string const& dataFolder, Launch launch = {});
    // Closes its stdin and reaps it.
    ~EmulatorProcess();
    EmulatorProcess(EmulatorProcess const&) = delete;
    EmulatorProcess& operator=(EmulatorProcess const&) = delete;

    // The next line of output without its line feed; nullopt at end of output
    // or after `timeoutMs` without a complete line.
    std::optional<std::string> readLine(int timeoutMs = 20000);
    // Reads the first line and expects "start"; false otherwise.
    bool handshake();
    void writeLine(std::string const& line);
    void send(Json::Value const& request);
    // The next line parsed as JSON (null when it is not JSON or missing).
    Json::Value receive();
    // send() then receive().
    Json::Value call(Json::Value const& request);
    // Sends a transfer and reads up to and including its final message.
    std::vector<Json::Value> transfer(Json::Value const& request);
    // Reads past progress messages to the final answer of a request (null if none).
    Json::Value finalAnswer();

    // Closes stdin and waits; the exit status, or 128 + signal.
    int finish();
    // Closes both pipe ends without waiting, as a client that gives up does.
    void hangUp();
    // What was read after the last complete line.
    std::string const& unfinished() const { return _buffer; }
    pid_t pid() const { return _pid; }

  private:
    pid_t _pid = -1;
    int _to = -1;
    int _from = -1;
    std::string _buffer;
    std::optional<int> _status;
};

// Parses one JSON text; null on failure.
Json::Value parseJson(std::string const& text);
// A fresh folder under the test temporary directory, removed by the caller.
std::string makeTempFolder(char const* tag);
void removeTree(std::string const& path);
void writeFile(std::string const& path, std::string const& content);
std::string readFile(std::string const& path);

// A request object from (member, value) pairs.
Json::Value req(std::initializer_list<std::pair<char const*, std::string>> members);

// A fresh account in a private folder, removed afterwards.
class AccountTest : public ::testing::Test {
  protected:
    void SetUp() override { drive.emplace(DriveEmulator::Drive::init(data)); }
    void TearDown() override;
    // An emulator started on the account; the test fails if it does not say "start".
    std::unique_ptr<EmulatorProcess> start();
    void progressEvery(std::int64_t bytes);

    std::string data = makeTempFolder("emulator-test");
    std::optional<DriveEmulator::Drive> drive;
};

}  // namespace EmulatorTest
