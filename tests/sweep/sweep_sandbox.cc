#include "sweep_sandbox.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;
using TAVO::Backup::Repository;

namespace Sweep {

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
    std::error_code ignored;
    fs::remove_all(_dir, ignored);
}

void Sandbox::reset() {
    _drive = std::make_unique<DriveEmulator::Drive>(DriveEmulator::Drive::init(_dir + "/data"));
    fs::remove_all(_dir + "/cache");
    fs::remove_all(_dir + "/local");
    fs::create_directory(_dir + "/local");
}

std::unique_ptr<TAVO::Backup::TransferAgentGoogleDrive> Sandbox::newAgent() {
    auto agent = std::make_unique<TAVO::Backup::TransferAgentGoogleDrive>(_repository);
    agent->setTargetId("T");
    agent->setTransferOption(TAVO::Backup::Task("T"));
    return agent;
}

std::string Sandbox::snapshot(std::vector<Finding>& findings) {
    std::vector<std::string> lines;
    std::function<void(std::string const&, std::string const&)> walk = [&](auto& id, auto& path) {
        std::set<std::string> seen;  // names as Drive compares them (ASCII here)
        for (auto const& child : _drive->children(id)) {
            std::string childPath = path + "/" + child.name, folded = child.name;
            std::transform(folded.begin(), folded.end(), folded.begin(), ::tolower);
            if (!seen.insert(folded).second)
                findings.push_back({"no two objects of one name", childPath});
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
    for (auto const& [folder, mark] : {std::pair<std::string, std::string>{"/local", ".tmp."},
                                       {"/cache/T", ".tmp."},
                                       {"/data/blobs/tmp", ""}}) {
        std::error_code missing;
        for (auto const& entry : fs::directory_iterator(_dir + folder, missing)) {
            if (entry.path().filename().string().find(mark) != std::string::npos) {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

}  // namespace Sweep
