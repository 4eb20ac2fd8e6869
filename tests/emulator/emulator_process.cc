#include "emulator_process.h"

#include <json/reader.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace EmulatorTest {

EmulatorProcess::EmulatorProcess(std::string const& dataFolder, Env const& changes,
                                 std::string const& binary) {
    Env env = {
        {"GOOGLEDRIVE_ACCESS_TOKEN", std::string("ya29.access")},
        {"GOOGLEDRIVE_REFRESH_TOKEN", std::string("MS8vMGdSZWZyZXNoVG9rZW4=")},
        {"GOOGLEDRIVE_CLIENT_ID", std::string("123456789012-abc.apps.example.com")},
        {"GOOGLEDRIVE_CLIENT_SECRET", std::string("Qm7vT2xK_pL9R-04Hd3WaNce")},
        {"TAVO_USER_AGENT", std::string("Coffervault/1.0")},
        {"DRIVE_EMULATOR_DATA", dataFolder},
        {"TAVO_ROOT", std::nullopt},
    };
    for (auto const& change : changes) env[change.first] = change.second;
    // The child inherits our environment; every launch sets all of these.
    for (auto const& [name, value] : env) {
        if (value) {
            ::setenv(name.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name.c_str());
        }
    }
    std::string program = binary.empty() ? DriveEmulator::emulatorBinary() : binary;
    _pipe = TAVOPipeOpen(&_pid, program.c_str(), nullptr);
    if (!_pipe) throw std::runtime_error("cannot start the emulator");
}

EmulatorProcess::~EmulatorProcess() {
    // With both pipes closed it ends soon even after a test that failed half-way.
    TAVOPipeFree(_pipe);
    if (!_status) ::waitpid(_pid, nullptr, 0);
}

std::optional<std::string> EmulatorProcess::readLine() {
    for (size_t end; (end = _buffer.find('\n')) == std::string::npos;) {
        pollfd p = {_pipe->readFd, POLLIN, 0};
        char chunk[65536];
        ssize_t n = ::poll(&p, 1, 20000) > 0 ? ::read(_pipe->readFd, chunk, sizeof chunk) : 0;
        if (n <= 0) return std::nullopt;
        _buffer.append(chunk, static_cast<size_t>(n));
    }
    std::string line = _buffer.substr(0, _buffer.find('\n'));
    _buffer.erase(0, line.size() + 1);
    return line;
}

void EmulatorProcess::writeLine(std::string const& line) {
    std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(_pipe->writeFd, text.data() + done, text.size() - done);
        if (n <= 0) return;  // the emulator is gone; the reads will tell
        done += static_cast<size_t>(n);
    }
}

void EmulatorProcess::send(Json::Value const& request) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;  // strings as their bytes, as the plug-in sends them
    writeLine(Json::writeString(builder, request));
}

Json::Value EmulatorProcess::receive() {
    Json::Value value;
    std::istringstream line(readLine().value_or(""));
    std::string errors;
    return Json::parseFromStream(Json::CharReaderBuilder(), line, &value, &errors) ? value
                                                                                   : Json::Value();
}

std::vector<Json::Value> EmulatorProcess::answers() {
    std::vector<Json::Value> messages;
    do {
        messages.push_back(receive());
    } while (messages.back().get("success", false).asBool() &&
             !messages.back().get("complete", true).asBool());
    return messages;
}

int EmulatorProcess::finish() {
    ::close(_pipe->writeFd);
    _pipe->writeFd = -1;
    int status = 0;
    if (!_status && ::waitpid(_pid, &status, 0) == _pid) _status = status;
    return WIFEXITED(*_status) ? WEXITSTATUS(*_status) : 128 + WTERMSIG(*_status);
}

void EmulatorProcess::hangUp() {
    ::close(_pipe->writeFd);
    ::close(_pipe->readFd);
    _pipe->writeFd = _pipe->readFd = -1;
}

Json::Value req(std::initializer_list<std::pair<char const*, std::string>> members) {
    Json::Value r(Json::objectValue);
    for (auto const& m : members) r[m.first] = m.second;
    return r;
}

Json::Value upload(std::string const& parent, std::string const& input, std::string const& name) {
    return req({{"fn", "uploadFile"}, {"name", name}, {"parentId", parent}, {"inputPath", input}});
}

void AccountTest::TearDown() {
    drive.reset();
    std::error_code ignored;
    std::filesystem::remove_all(data, ignored);
}

std::unique_ptr<EmulatorProcess> AccountTest::start() {
    auto process = std::make_unique<EmulatorProcess>(data);
    EXPECT_EQ("start", process->readLine().value_or("<nothing>"));
    return process;
}

void AccountTest::changeSettings(std::function<void(DriveEmulator::Settings&)> const& change) {
    DriveEmulator::Settings s = drive->settings();
    change(s);
    drive->setSettings(s);
}

}  // namespace EmulatorTest
