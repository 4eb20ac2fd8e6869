#include "sweep_sandbox.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

namespace fs = std::filesystem;

namespace Sweep {

std::string Sandbox::snapshot(std::vector<Finding>& findings) {
    std::vector<std::string> lines;
    std::function<void(std::string const&, std::string const&)> walk = [&](auto& id, auto& path) {
        std::set<std::string> seen;  // names as Drive compares them (ASCII here)
        for (auto const& child : drive->children(id)) {
            std::string childPath = path + "/" + child.name, folded = child.name;
            std::transform(folded.begin(), folded.end(), folded.begin(), ::tolower);
            if (!seen.insert(folded).second)
                findings.push_back({"no two objects of one name", childPath});
            lines.push_back(childPath + (child.isDir ? " folder" : " file " + child.md5));
            if (child.isDir) walk(child.id, childPath);
        }
    };
    walk(drive->rootId(), "");
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
