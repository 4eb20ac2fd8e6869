// protocol_tap: started by the plug-in in the drive agent's place when its
// integration tests run against drive_agent and the REST fake. It runs
// drive_agent on pipes, passes every line through unchanged, and appends one
// row per answered request to the emulator's request log in the account's
// data folder, as the emulator does: the tests count the plug-in's requests,
// not the REST calls behind them.
#include <fcntl.h>
#include <json/reader.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "request_log.h"
#include "store.h"

namespace {

bool writeAll(int fd, std::string const& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

Json::Value parse(std::string const& line) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(line.data(), line.data() + line.size(), &value, &errors) ||
        !value.isObject()) {
        return Json::Value();
    }
    return value;
}

// The row the emulator would log for `request` answered by `answer`.
DriveEmulator::LogEntry logEntry(std::string const& request, Json::Value const& answer) {
    DriveEmulator::LogEntry entry;
    Json::Value body = parse(request);
    if (body.isObject()) {
        entry.fn = body["fn"].isString() ? body["fn"].asString() : "";
        body.removeMember("fn");
        entry.args = body;
    } else {
        entry.args["line"] = request.substr(0, 1000);
    }
    entry.success = answer.get("success", false).asBool();
    entry.errorCode = entry.success ? 0 : answer.get("error_code", 0).asInt();
    entry.message = answer.get("error_message", "").asString();
    entry.time =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    entry.pid = static_cast<int>(::getpid());
    return entry;
}

// Takes the complete lines off the front of `buffer`.
std::deque<std::string> takeLines(std::string& buffer) {
    std::deque<std::string> lines;
    for (size_t end; (end = buffer.find('\n')) != std::string::npos;) {
        lines.push_back(buffer.substr(0, end));
        buffer.erase(0, end + 1);
    }
    return lines;
}

}  // namespace

int main(int, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    char const* root = std::getenv("TAVO_ROOT");
    std::string bin = std::string(root ? root : "") + "/usr/bin/";
    std::string data;
    std::getline(std::ifstream(bin + "drive_emulator.conf"), data);
    ::setenv("DRIVE_AGENT_CONF", (bin + "drive_agent.conf").c_str(), 1);

    int toAgent[2], fromAgent[2];
    if (::pipe2(toAgent, O_CLOEXEC) != 0 || ::pipe2(fromAgent, O_CLOEXEC) != 0) return 1;
    pid_t const tap = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) return 1;
    if (pid == 0) {
        // The plug-in kills us to end a request; the agent goes with us.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != tap) ::_exit(1);
        ::dup2(toAgent[0], STDIN_FILENO);
        ::dup2(fromAgent[1], STDOUT_FILENO);
        argv[0] = const_cast<char*>(DRIVE_AGENT_BINARY);
        ::execv(DRIVE_AGENT_BINARY, argv);
        ::_exit(127);
    }
    ::close(toAgent[0]);
    ::close(fromAgent[1]);

    std::unique_ptr<DriveEmulator::Store> store;
    std::deque<std::string> pending;  // requests sent on, oldest first
    std::string fromPlugin, fromDrive;
    bool inputOpen = true;
    std::vector<char> chunk(1 << 16);
    for (;;) {
        pollfd fds[2] = {{fromAgent[0], POLLIN, 0}, {inputOpen ? STDIN_FILENO : -1, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents != 0) {
            ssize_t n = ::read(STDIN_FILENO, chunk.data(), chunk.size());
            if (n <= 0) {
                inputOpen = false;
                ::close(toAgent[1]);
            } else {
                fromPlugin.append(chunk.data(), static_cast<size_t>(n));
                for (auto& line : takeLines(fromPlugin)) {
                    if (!writeAll(toAgent[1], line + "\n")) break;
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    pending.push_back(line);
                }
            }
        }
        if (fds[0].revents == 0) continue;
        ssize_t n = ::read(fromAgent[0], chunk.data(), chunk.size());
        if (n <= 0) break;
        fromDrive.append(chunk.data(), static_cast<size_t>(n));
        for (auto const& line : takeLines(fromDrive)) {
            Json::Value answer = parse(line);
            // Progress lines and the start line belong to no request of their own.
            bool progress = answer.isMember("progress") && !answer.get("complete", true).asBool();
            if (!progress && !pending.empty()) {
                if (!store) store = std::make_unique<DriveEmulator::Store>(data);
                DriveEmulator::WriteTransaction txn(store->db());
                DriveEmulator::appendLog(store->db(), logEntry(pending.front(), answer));
                txn.commit();
                pending.pop_front();
            }
            if (!writeAll(STDOUT_FILENO, line + "\n")) return 1;
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
