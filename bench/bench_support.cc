#include "bench_support.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "drive_control.h"

namespace BenchSupport {

std::string makeScratchFolder(std::string const& prefix) {
    char const* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (!::mkdtemp(&pattern[0])) {
        std::perror("mkdtemp");
        std::abort();
    }
    return pattern;
}

void removeTree(std::string const& folder) {
    std::error_code error;
    std::filesystem::remove_all(folder, error);
    if (error)
        std::fprintf(stderr, "cannot remove %s: %s\n", folder.c_str(), error.message().c_str());
}

void settle(std::string const& folder) {
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::syncfs(fd);
    ::close(fd);
}

EmulatorPipe::EmulatorPipe(std::string const& dataFolder) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::string const program = DriveEmulator::emulatorBinary();
    // Prepared before the fork: the child only execs.
    std::vector<std::string> env = {
        "DRIVE_EMULATOR_DATA=" + dataFolder,  "GOOGLEDRIVE_ACCESS_TOKEN=",
        "GOOGLEDRIVE_REFRESH_TOKEN=YWJjZA==", "GOOGLEDRIVE_CLIENT_ID=bench",
        "GOOGLEDRIVE_CLIENT_SECRET=bench",    "TAVO_USER_AGENT=bench"};
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    _pid = ::fork();
    if (_pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::execle(program.c_str(), program.c_str(), "drive_agent.py", static_cast<char*>(nullptr),
                 envp.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    _to = in[1];
    _from = out[0];
    if (_pid < 0 || readLine() != "start") throw std::runtime_error("emulator did not start");
}

EmulatorPipe::~EmulatorPipe() {
    ::close(_to);
    ::close(_from);
    int status;
    if (_pid > 0) ::waitpid(_pid, &status, 0);
}

void EmulatorPipe::write(std::string const& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(_to, text.data() + done, text.size() - done);
        if (n <= 0) throw std::runtime_error("emulator gone");
        done += static_cast<size_t>(n);
    }
}

std::string EmulatorPipe::readLine() {
    for (;;) {
        size_t end = _buffer.find('\n', _start);
        if (end != std::string::npos) {
            std::string line = _buffer.substr(_start, end - _start);
            _start = end + 1;
            if (_start == _buffer.size()) {
                _buffer.clear();
                _start = 0;
            }
            return line;
        }
        char chunk[65536];
        ssize_t n = ::read(_from, chunk, sizeof chunk);
        if (n <= 0) throw std::runtime_error("emulator gone");
        _buffer.append(chunk, static_cast<size_t>(n));
    }
}

std::string EmulatorPipe::exchange(std::string const& requestLine) {
    write(requestLine);
    for (;;) {
        std::string line = readLine();
        if (line.find("\"complete\":false") == std::string::npos) return line;
    }
}

std::string stringMember(std::string const& line, char const* key) {
    std::string const opening = std::string("\"") + key + "\":\"";
    size_t begin = line.find(opening);
    if (begin == std::string::npos) return std::string();
    begin += opening.size();
    size_t end = line.find('"', begin);
    return end == std::string::npos ? std::string() : line.substr(begin, end - begin);
}

void useEmulatorFor(std::string const& rootFolder, std::string const& dataFolder) {
    DriveEmulator::makeAgentRoot(rootFolder, dataFolder);
    ::setenv("TAVO_ROOT", rootFolder.c_str(), 1);
    ::unsetenv("DRIVE_EMULATOR_DATA");
}

std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> makeAgent(std::string const& container,
                                                                  std::string const& target,
                                                                  std::string const& cacheRoot) {
    using namespace TAVO::Backup;
    Repository repo;
    repo.options().set(Repository::SZK_REMOTE_BUCKET, container);
    repo.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
    repo.setCacheRoot(cacheRoot);
    auto agent = std::make_unique<TransferAgentGoogleDrive>(repo);
    agent->setTargetId(target);
    agent->setTransferOption(Task(target));
    return agent;
}

namespace {

// A "VmRSS:" or "VmHWM:" line of /proc/self/status, in bytes.
std::int64_t statusBytes(char const* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    size_t const length = std::strlen(field);
    while (std::getline(status, line)) {
        if (line.compare(0, length, field) == 0) {
            return std::strtoll(line.c_str() + length, nullptr, 10) * 1024;
        }
    }
    return 0;
}

}  // namespace

void PeakRssProbe::start() {
    ::malloc_trim(0);
    // "5" resets the peak resident size to the current one (Linux 4.0 on).
    std::ofstream("/proc/self/clear_refs") << "5";
    _base = statusBytes("VmRSS:");
}

std::int64_t PeakRssProbe::growth() const { return statusBytes("VmHWM:") - _base; }

double processCpuSeconds() {
    struct rusage usage;
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace BenchSupport
