// A scriptable helper for the channel tests. argv[1] is a script of steps
// separated by ';', run in order; when they are done, every further request
// is echoed until stdin ends. Steps that answer read one request line first
// and count it (the "n" member of their answer is that count).
//
//   say:TEXT      write TEXT and a line feed ('|' in TEXT becomes a line feed,
//                 so several lines go out in one write); reads nothing
//   echo          answer {"success":true,"n":N,"request":<the request>}
//   fail:CODE     answer {"success":false,"error_code":CODE,"error_message":...,"n":N}
//   reply:TEXT    answer TEXT as it is
//   partial:TEXT  answer TEXT without a line feed, then exit
//   die           read the request, then die by SIGKILL
//   closeout      read the request, close stdout, exit when stdin ends
//   closein       close stdin, say "stdin closed", exit once stdout has no reader
//   exit          exit at once
//   fds           answer with the list of open descriptors
//   hang          ignore SIGTERM and the end of stdin, sleep until killed
#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int g_requests = 0;

void writeOut(std::string const& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t put = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (put <= 0) _exit(3);
        done += static_cast<size_t>(put);
    }
}

// The next request line without its line feed; false at the end of stdin.
bool readRequest(std::string& line) {
    static char* buffer = nullptr;
    static size_t capacity = 0;
    ssize_t got = getline(&buffer, &capacity, stdin);
    if (got <= 0) return false;
    if (buffer[got - 1] == '\n') --got;
    line.assign(buffer, static_cast<size_t>(got));
    ++g_requests;
    return true;
}

std::string openDescriptors() {
    std::string list;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return list;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(dir)) continue;
        if (!list.empty()) list += ',';
        list += entry->d_name;
    }
    closedir(dir);
    return list;
}

void runStep(std::string const& step) {
    size_t colon = step.find(':');
    std::string const verb = step.substr(0, colon);
    std::string const arg = colon == std::string::npos ? "" : step.substr(colon + 1);
    std::string request;

    if (verb == "say") {
        std::string text = arg;
        for (char& c : text)
            if (c == '|') c = '\n';
        writeOut(text + "\n");
    } else if (verb == "exit") {
        _exit(0);
    } else if (verb == "hang") {
        signal(SIGTERM, SIG_IGN);
        while (readRequest(request)) {
        }
        for (;;) pause();
    } else if (verb == "closein") {
        close(STDIN_FILENO);
        writeOut("stdin closed\n");
        struct pollfd out = {STDOUT_FILENO, 0, 0};
        while (poll(&out, 1, -1) <= 0 || !(out.revents & (POLLERR | POLLHUP))) {
        }
        _exit(0);
    } else {
        // Every other step answers a request.
        if (!readRequest(request)) _exit(0);
        std::string const count = std::to_string(g_requests);
        if (verb == "echo") {
            writeOut("{\"success\":true,\"n\":" + count + ",\"request\":" + request + "}\n");
        } else if (verb == "fail") {
            writeOut("{\"success\":false,\"error_code\":" + arg +
                     ",\"error_message\":\"fake failure\",\"n\":" + count + "}\n");
        } else if (verb == "reply") {
            writeOut(arg + "\n");
        } else if (verb == "partial") {
            writeOut(arg);
            _exit(0);
        } else if (verb == "die") {
            raise(SIGKILL);
        } else if (verb == "fds") {
            writeOut("{\"success\":true,\"fds\":[" + openDescriptors() + "]}\n");
        } else if (verb == "closeout") {
            close(STDOUT_FILENO);
            while (readRequest(request)) {
            }
            _exit(0);
        } else {
            fprintf(stderr, "fake_agent: unknown step [%s]\n", step.c_str());
            _exit(2);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string const script = argc > 1 ? argv[1] : "";
    size_t start = 0;
    while (start < script.size()) {
        size_t stop = script.find(';', start);
        if (stop == std::string::npos) stop = script.size();
        if (stop > start) runStep(script.substr(start, stop - start));
        start = stop + 1;
    }
    for (;;) runStep("echo");
}
