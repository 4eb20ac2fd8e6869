#include "sweep_sandbox.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

using TAVO::Backup::Repository;
using TAVO::Backup::TransferAgentGoogleDrive;

namespace Sweep {

namespace {

void run(std::string const& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

void listNames(std::string const& folder, std::string const& pattern,
               std::vector<std::string>& out) {
    DIR* dir = opendir(folder.c_str());
    if (!dir) return;
    while (dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name != "." && name != ".." && name.find(pattern) != std::string::npos) {
            out.push_back(folder + "/" + name);
        }
    }
    closedir(dir);
}

}  // namespace

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void writeFile(std::string const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

Sandbox::Sandbox() {
    char tmpl[] = "/tmp/fault-sweep-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    _dir = tmpl;
    _drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(_dir + "/data"));
    DriveEmulator::makeAgentRoot(_dir + "/root", _dir + "/data");
    setenv("TAVO_ROOT", (_dir + "/root").c_str(), 1);
    unsetenv("DRIVE_EMULATOR_DATA");
    setenv("TAVO_AGENT_PAUSE_UNIT_MS", "0", 1);
    _repository.options().set(Repository::SZK_REMOTE_BUCKET, "C");
    _repository.options().set(Repository::SZK_REMOTE_ACCESS_TOKEN, "access");
    _repository.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, "cmVmcmVzaA==");
    _repository.setCacheRoot(_dir + "/cache");
}

Sandbox::~Sandbox() {
    _drive.reset();
    std::system(("rm -rf '" + _dir + "'").c_str());
}

void Sandbox::reset() {
    _drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(_dir + "/data"));
    run("rm -rf '" + _dir + "/cache' '" + _dir + "/local' && mkdir '" + _dir + "/local'");
}

std::unique_ptr<TransferAgentGoogleDrive> Sandbox::newAgent() {
    auto agent = std::make_unique<TransferAgentGoogleDrive>(_repository);
    agent->setTargetId("T");
    agent->setTransferOption(TAVO::Backup::Task("T"));
    return agent;
}

std::string Sandbox::snapshot(std::vector<Finding>& findings) {
    std::vector<std::string> lines;
    std::function<void(std::string const&, std::string const&)> walk =
        [&](std::string const& id, std::string const& path) {
            std::vector<std::string> seen;
            for (auto const& child : _drive->children(id)) {
                std::string childPath = path + "/" + child.name;
                if (std::find(seen.begin(), seen.end(), lower(child.name)) != seen.end()) {
                    findings.push_back({"no two objects of one name", childPath});
                }
                seen.push_back(lower(child.name));
                lines.push_back(childPath + (child.isDir ? " folder" : " file " + child.md5));
                if (child.isDir) walk(child.id, childPath);
            }
        };
    walk(_drive->rootId(), "");
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (auto const& line : lines) text += line + "\n";
    return text;
}

std::vector<std::string> Sandbox::leftovers() const {
    std::vector<std::string> found;
    listNames(_dir + "/local", ".tmp.", found);
    listNames(_dir + "/cache/T", ".tmp.", found);
    listNames(_dir + "/data/blobs/tmp", "", found);
    return found;
}

}  // namespace Sweep
