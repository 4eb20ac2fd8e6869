// drive_agent on real pipes in front of the REST fake, on an emulator account
// in a private folder; optionally through a proxy that drops connections.
#pragma once

#include <httplib.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "cut_proxy.h"
#include "drive_control.h"
#include "emulator_process.h"
#include "fake_drive.h"

namespace AgentTest {

constexpr std::int64_t MiB = 1 << 20;

using EmulatorTest::EmulatorProcess;
using EmulatorTest::Env;
using EmulatorTest::req;
using TestSupport::readFile;
using TestSupport::writeFile;

class AgentOnFake {
  public:
    // `tls`: the fake serves https with a certificate made for the test,
    // which the agent's configuration names as its CA.
    explicit AgentOnFake(bool throughProxy = false, bool tls = false);
    ~AgentOnFake();

    // drive_agent started as the plug-in starts it, pointed at the fake (or
    // the proxy); the test fails unless it says "start".
    std::unique_ptr<EmulatorProcess> start(Env const& env = {});
    // Writes the agent's configuration file: the fake's (or proxy's) URLs
    // and, when given, the CA file.
    void configure(std::string const& caFile);
    // An Authorization header with a fresh access token from the fake, for
    // requests a test makes itself.
    httplib::Headers bearer();
    // The last answer of a download of `id` by `agent` into scratch/out.
    Json::Value download(EmulatorProcess& agent, std::string const& id);

    std::string data;     // the account's data folder
    std::string scratch;  // a private folder for local files
    std::optional<DriveEmulator::Drive> drive;
    std::unique_ptr<DriveFake::FakeDrive> fake;
    std::unique_ptr<DriveFake::CutProxy> proxy;
};

// A file of `size` bytes of a fixed pseudo-random pattern.
void writePattern(std::string const& path, std::int64_t size, unsigned seed = 1);
// The MD5 of a local file, as lower-case hex.
std::string fileMd5(std::string const& path);

}  // namespace AgentTest
