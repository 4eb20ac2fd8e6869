#include "core/pipe_open.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// Where the child's ends sit between fork and exec: above the three standard
// descriptors and the status pipe, so that moving them into place never
// overwrites one that is still to be moved.
int const kParkingFd = 10;
// The status pipe's place in the child; everything above it is closed.
int const kStatusFd = 3;

void closeQuietly(int fd) {
    if (fd >= 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
    }
}

// The file to execute: "$TAVO_ROOT/<program>" when TAVO_ROOT names a folder
// and that file exists, `program` otherwise.
std::string resolveProgram(char const* program) {
    char const* root = getenv("TAVO_ROOT");
    if (root == nullptr || *root == '\0') return program;
    std::string rooted(root);
    while (!rooted.empty() && rooted.back() == '/') rooted.pop_back();
    if (program[0] != '/') rooted += '/';
    rooted += program;
    struct stat st;
    if (::stat(rooted.c_str(), &st) == 0) return rooted;
    return program;
}

// Closes every descriptor from `first` up. close_range() is one call; kernels
// before 5.9 lack it, and then each possible descriptor is closed in turn.
// Only async-signal-safe calls: this runs between fork and exec.
void closeFrom(int first) {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, static_cast<unsigned>(first), ~0U, 0U) == 0) return;
#endif
    struct rlimit limit;
    long top = 65536;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        top = static_cast<long>(limit.rlim_cur);
    }
    for (long fd = first; fd < top; ++fd) ::close(static_cast<int>(fd));
}

// Reports errno to the parent through the status pipe and ends the child.
[[noreturn]] void childFail(int statusFd) {
    int err = errno;
    ssize_t ignored = ::write(statusFd, &err, sizeof err);
    (void)ignored;
    _exit(127);
}

// The child between fork and exec: stdin from `in`, stdout to `out`, the
// status pipe at kStatusFd (close-on-exec), nothing else of ours.
[[noreturn]] void runChild(int in, int out, int status, char const* path, char* const argv[]) {
    // Our caller may have blocked signals or ignored SIGPIPE; the helper
    // starts with the defaults, so that writing to a closed pipe ends it.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction deflt = {};
    deflt.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &deflt, nullptr);

    int parkedStatus = fcntl(status, F_DUPFD_CLOEXEC, kParkingFd);
    if (parkedStatus < 0) childFail(status);
    int parkedIn = fcntl(in, F_DUPFD_CLOEXEC, kParkingFd);
    int parkedOut = parkedIn < 0 ? -1 : fcntl(out, F_DUPFD_CLOEXEC, kParkingFd);
    if (parkedIn < 0 || parkedOut < 0) childFail(parkedStatus);
    // dup2 and dup3 leave the new descriptor without close-on-exec (dup3 with
    // O_CLOEXEC sets it), whatever the old one had.
    if (dup2(parkedIn, STDIN_FILENO) < 0 || dup2(parkedOut, STDOUT_FILENO) < 0 ||
        dup3(parkedStatus, kStatusFd, O_CLOEXEC) < 0) {
        childFail(parkedStatus);
    }
    closeFrom(kStatusFd + 1);
    execv(path, argv);
    childFail(kStatusFd);
}

}  // namespace

extern "C" TAVOPipe* TAVOPipeOpen(pid_t* child, char const* program, ...) {
    if (child == nullptr || program == nullptr || *program == '\0') {
        errno = EINVAL;
        return nullptr;
    }

    // Everything the child needs is prepared before fork: after it, in a
    // threaded host, the child may only make async-signal-safe calls.
    std::string const path = resolveProgram(program);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    va_list args;
    va_start(args, program);
    for (char const* arg = va_arg(args, char const*); arg != nullptr;
         arg = va_arg(args, char const*)) {
        argv.push_back(const_cast<char*>(arg));
    }
    va_end(args);
    argv.push_back(nullptr);

    TAVOPipe* handle = static_cast<TAVOPipe*>(malloc(sizeof(TAVOPipe)));
    if (handle == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    // toChild: we write [1], the child reads [0]. fromChild: the child
    // writes [1], we read [0]. status: the child reports an exec failure.
    int toChild[2] = {-1, -1};
    int fromChild[2] = {-1, -1};
    int status[2] = {-1, -1};
    auto closeAll = [&] {
        for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1], status[0], status[1]}) {
            closeQuietly(fd);
        }
        free(handle);
    };
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0 ||
        pipe2(status, O_CLOEXEC) != 0) {
        closeAll();
        return nullptr;
    }

    pid_t pid = fork();
    if (pid < 0) {
        closeAll();
        return nullptr;
    }
    if (pid == 0) runChild(toChild[0], fromChild[1], status[1], argv[0], argv.data());

    // The child's ends are the child's now.
    closeQuietly(toChild[0]);
    closeQuietly(fromChild[1]);
    closeQuietly(status[1]);
    toChild[0] = fromChild[1] = status[1] = -1;

    // A successful exec closes the status pipe without a word; a failure
    // sends errno first. Waiting for that makes a program that cannot be run
    // a failure here rather than a child that dies at once.
    int childErrno = 0;
    ssize_t got;
    do {
        got = ::read(status[0], &childErrno, sizeof childErrno);
    } while (got < 0 && errno == EINTR);
    if (got != 0) {
        if (got != static_cast<ssize_t>(sizeof childErrno)) {
            // Cannot tell whether it runs: do not leave it running unwatched.
            childErrno = EIO;
            kill(pid, SIGKILL);
        }
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        closeAll();
        errno = childErrno;
        return nullptr;
    }
    closeQuietly(status[0]);

    handle->writeFd = toChild[1];
    handle->readFd = fromChild[0];
    *child = pid;
    return handle;
}

extern "C" void TAVOPipeFree(TAVOPipe* pipe) {
    if (pipe == nullptr) return;
    closeQuietly(pipe->readFd);
    closeQuietly(pipe->writeFd);
    free(pipe);
}
