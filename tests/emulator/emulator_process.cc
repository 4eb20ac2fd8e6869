#include "emulator_process.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "drive_control.h"

extern char** environ;

namespace EmulatorTest {

std::map<std::string, std::optional<std::string>> agentEnvironment() {
    return {
        {"GOOGLEDRIVE_ACCESS_TOKEN", std::string("ya29.access")},
        {"GOOGLEDRIVE_REFRESH_TOKEN", std::string("MS8vMGdSZWZyZXNoVG9rZW4=")},
        {"GOOGLEDRIVE_CLIENT_ID", std::string("123456789012-abc.apps.example.com")},
        {"GOOGLEDRIVE_CLIENT_SECRET", std::string("Qm7vT2xK_pL9R-04Hd3WaNce")},
        {"TAVO_USER_AGENT", std::string("Coffervault/1.0")},
    };
}

EmulatorProcess::EmulatorProcess(std::string const& dataFolder, Launch launch) {
    std::string program = launch.program.empty() ? DriveEmulator::emulatorBinary() : launch.program;
    std::string argv0 = launch.argv0.empty() ? program : launch.argv0;
    auto settings = agentEnvironment();
    settings["DRIVE_EMULATOR_DATA"] = dataFolder;
    for (auto const& entry : launch.env) settings[entry.first] = entry.second;

    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        if (!settings.count(entry.substr(0, entry.find('=')))) env.push_back(entry);
    }
    for (auto const& entry : settings) {
        if (entry.second) env.push_back(entry.first + "=" + *entry.second);
    }
    std::vector<std::string> args = {argv0};
    args.insert(args.end(), launch.args.begin(), launch.args.end());

    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> argvPointers, envPointers;
    for (auto& a : args) argvPointers.push_back(&a[0]);
    argvPointers.push_back(nullptr);
    for (auto& e : env) envPointers.push_back(&e[0]);
    envPointers.push_back(nullptr);

    _pid = ::fork();
    if (_pid < 0) throw std::runtime_error("fork failed");
    if (_pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::execve(program.c_str(), argvPointers.data(), envPointers.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    _to = in[1];
    _from = out[0];
}

EmulatorProcess::~EmulatorProcess() {
    if (_to >= 0 || !_status) {
        // A test that failed half-way may leave it running: do not hang here.
        if (_to >= 0) ::close(_to);
        _to = -1;
        for (int i = 0; i < 200 && !_status; ++i) {
            int status = 0;
            if (::waitpid(_pid, &status, WNOHANG) == _pid) {
                _status = status;
            } else {
                ::usleep(10000);
            }
        }
        if (!_status) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
    }
    if (_from >= 0) ::close(_from);
}

std::optional<std::string> EmulatorProcess::readLine(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        size_t end = _buffer.find('\n');
        if (end != std::string::npos) {
            std::string line = _buffer.substr(0, end);
            _buffer.erase(0, end + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) return std::nullopt;
        pollfd p = {_from, POLLIN, 0};
        int ready = ::poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[65536];
        ssize_t n = ::read(_from, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        _buffer.append(chunk, static_cast<size_t>(n));
    }
}

bool EmulatorProcess::handshake() { return readLine() == std::optional<std::string>("start"); }

void EmulatorProcess::writeLine(std::string const& line) {
    std::string text = line + "\n";
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(_to, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the emulator is gone; the reads will tell
        done += static_cast<size_t>(n);
    }
}

void EmulatorProcess::send(Json::Value const& request) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    writeLine(Json::writeString(builder, request));
}

Json::Value EmulatorProcess::receive() {
    auto line = readLine();
    return line ? parseJson(*line) : Json::Value();
}

Json::Value EmulatorProcess::call(Json::Value const& request) {
    send(request);
    return receive();
}

std::vector<Json::Value> EmulatorProcess::transfer(Json::Value const& request) {
    send(request);
    std::vector<Json::Value> messages;
    for (;;) {
        Json::Value message = receive();
        messages.push_back(message);
        if (message.isNull() || !message.get("success", false).asBool() ||
            message.get("complete", true).asBool()) {
            return messages;
        }
    }
}

Json::Value EmulatorProcess::finalAnswer() {
    Json::Value message;
    do {
        message = receive();
    } while (message.isObject() && !message.get("complete", true).asBool());
    return message;
}

int EmulatorProcess::finish() {
    if (_to >= 0) ::close(_to);
    _to = -1;
    if (!_status) {
        int status = 0;
        while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
        }
        _status = status;
    }
    return WIFEXITED(*_status) ? WEXITSTATUS(*_status) : 128 + WTERMSIG(*_status);
}

void EmulatorProcess::hangUp() {
    for (int* fd : {&_to, &_from}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

Json::Value req(std::initializer_list<std::pair<char const*, std::string>> members) {
    Json::Value r(Json::objectValue);
    for (auto const& m : members) r[m.first] = m.second;
    return r;
}

void AccountTest::TearDown() {
    drive.reset();
    removeTree(data);
}

std::unique_ptr<EmulatorProcess> AccountTest::start() {
    auto process = std::make_unique<EmulatorProcess>(data);
    EXPECT_TRUE(process->handshake());
    return process;
}

void AccountTest::progressEvery(std::int64_t bytes) {
    DriveEmulator::Settings s = drive->settings();
    s.progressBytes = bytes;
    drive->setSettings(s);
}

Json::Value parseJson(std::string const& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        return Json::Value();
    }
    return value;
}

std::string makeTempFolder(char const* tag) {
    char const* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + tag + "-XXXXXX";
    if (!::mkdtemp(&pattern[0])) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

void removeTree(std::string const& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void writeFile(std::string const& path, std::string const& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace EmulatorTest
