#include "bench_support.h"

#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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

EmulatorPipe::EmulatorPipe(std::string const& dataFolder)
    : _child(DriveEmulator::emulatorBinary(),
             {"DRIVE_EMULATOR_DATA=" + dataFolder, "GOOGLEDRIVE_ACCESS_TOKEN=",
              "GOOGLEDRIVE_REFRESH_TOKEN=YWJjZA==", "GOOGLEDRIVE_CLIENT_ID=bench",
              "GOOGLEDRIVE_CLIENT_SECRET=bench", "TAVO_USER_AGENT=bench"},
             nullptr, "") {
    if (readLine() != "start") throw std::runtime_error("emulator did not start");
}

void EmulatorPipe::write(std::string const& text) { _child.write(text); }

std::string EmulatorPipe::readLine() { return _child.readLine(); }

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

double runCommand(std::vector<std::string> args, std::vector<std::string> const& env,
                  int* exitCode) {
    // The environment is made here and the child spawned: the caller may run
    // threads (a fake service), so nothing of ours runs in a forked copy.
    std::vector<std::string> vars;
    for (char** e = environ; *e; ++e) vars.emplace_back(*e);
    for (auto const& entry : env) {
        std::string name = entry.substr(0, entry.find('='));
        vars.erase(
            std::remove_if(vars.begin(), vars.end(),
                           [&](std::string const& v) { return v.rfind(name + "=", 0) == 0; }),
            vars.end());
        if (entry.find('=') != std::string::npos) vars.push_back(entry);
    }
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& v : vars) envp.push_back(v.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    int failed = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) return -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (exitCode) {
        *exitCode = code;
        return seconds;
    }
    return code == 0 ? seconds : -1;
}

}  // namespace BenchSupport
