#include "destination_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include "failure.h"
#include "interrupt.h"
#include "local_files.h"

namespace gdhost {

namespace {

// Who holds the lock, as its holder wrote it; empty when unknown (not yet
// written, or still the words of a run that has ended).
std::string holderOf(int fd) {
    char text[512];
    ssize_t got = pread(fd, text, sizeof text - 1, 0);
    if (got <= 0) return "";
    std::string holder(text, static_cast<size_t>(got));
    while (!holder.empty() && holder.back() == '\n') holder.pop_back();
    long pid = 0;
    if (sscanf(holder.c_str(), "process %ld", &pid) != 1 || pid <= 0 ||
        (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)) {
        return "";
    }
    return holder;
}

void writeHolder(int fd, std::string const& what) {
    char since[32];
    time_t now = time(nullptr);
    strftime(since, sizeof since, "%Y-%m-%d %H:%M:%S", localtime(&now));
    std::string line =
        "process " + std::to_string(getpid()) + " (" + what + ") since " + since + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, line.data(), line.size(), 0) < 0) {
        // The lock holds without the words; a waiting run then names no holder.
    }
}

}  // namespace

std::string destinationLockFile(Destination const& d) {
    return d.cacheDir + "/" + d.target + "/gdrive_host.lock";
}

int holdDestination(Destination const& destination, std::string const& what) {
    std::string file = destinationLockFile(destination);
    std::string folder = file.substr(0, file.rfind('/'));
    // Held until the process ends: the node cache is flushed after the command.
    static int held = -1;
    if (held >= 0) return kExitOk;
    int fd = -1;
    // Private, as the plug-in makes them: the node cache names every object.
    std::string const cacheRoot = folder.substr(0, folder.rfind('/'));
    makeLocalFolders(cacheRoot.substr(0, cacheRoot.rfind('/')));
    for (std::string const& private_ : {cacheRoot, folder}) mkdir(private_.c_str(), 0700);
    if ((fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) < 0) {
        return reportProblem("cannot make the lock file " + file + ": " + strerror(errno),
                             kExitError);
    }
    bool told = false;
    for (int tries = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; ++tries) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            int error = errno;
            close(fd);
            return reportProblem("cannot lock " + file + ": " + strerror(error), kExitError);
        }
        if (interrupted()) {
            close(fd);
            return kExitCanceled;
        }
        // The holder writes its words just after taking the lock: a moment
        // for them before saying "another process".
        std::string holder = told ? "" : holderOf(fd);
        if (!told && (!holder.empty() || tries >= 10)) {
            fprintf(stderr, "gdrive_host: waiting for the run that changes %s: %s\n",
                    destination.target.c_str(),
                    holder.empty() ? "another process" : holder.c_str());
            told = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    writeHolder(fd, what);
    held = fd;
    return kExitOk;
}

}  // namespace gdhost
