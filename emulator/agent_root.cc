// Laying out a root folder in which "usr/bin/python" is the emulator, so that
// the plug-in's process start (which prefixes $TAVO_ROOT) runs it unchanged.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "drive_control.h"

#ifndef DRIVE_EMULATOR_BINARY
#error "DRIVE_EMULATOR_BINARY must name the built drive_emulator"
#endif

namespace DriveEmulator {

char const* const kAgentProgram = "/usr/bin/python";
char const* const kAgentScript =
    "/var/packages/Coffervault/target/addon/google_drive/python/drive_agent.py";

namespace {

[[noreturn]] void failure(std::string const& what, std::string const& path) {
    throw Error(500, what + " " + path + ": " + std::strerror(errno));
}

// mkdir -p
void makeFolders(std::string const& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string prefix = slash == std::string::npos ? path : path.substr(0, slash);
        if (!prefix.empty() && ::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            failure("cannot create", prefix);
        }
        if (slash == std::string::npos) return;
    }
}

std::string folderOf(std::string const& path) { return path.substr(0, path.rfind('/')); }

// A temporary name of this process's own beside `path`: runs of the tool
// started together lay out the same root at once.
std::string tempName(std::string const& path) {
    return path + ".tmp." + std::to_string(::getpid());
}

void writeFile(std::string const& path, std::string const& text) {
    std::string temp = tempName(path);
    {
        std::ofstream out(temp, std::ios::trunc);
        out << text;
        if (!out.flush()) failure("cannot write", temp);
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) failure("cannot write", path);
}

std::string absolute(std::string const& path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[4096];
    if (!::getcwd(cwd, sizeof cwd)) failure("cannot resolve", path);
    return std::string(cwd) + "/" + path;
}

}  // namespace

std::string emulatorBinary() { return DRIVE_EMULATOR_BINARY; }

void makeAgentRoot(std::string const& rootArg, std::string const& dataArg) {
    std::string root = absolute(rootArg);
    std::string data = absolute(dataArg);
    std::string program = root + kAgentProgram;
    std::string script = root + kAgentScript;
    makeFolders(folderOf(program));
    makeFolders(folderOf(script));

    std::string temp = tempName(program);
    ::unlink(temp.c_str());
    if (::symlink(DRIVE_EMULATOR_BINARY, temp.c_str()) != 0) failure("cannot link", temp);
    if (::rename(temp.c_str(), program.c_str()) != 0) failure("cannot link", program);

    writeFile(script, "# Placeholder: the drive agent here is the local Drive emulator.\n");
    writeFile(folderOf(program) + "/drive_emulator.conf", data + "\n");
    if (!Drive::hasAccount(data)) Drive::init(data);
}

}  // namespace DriveEmulator
