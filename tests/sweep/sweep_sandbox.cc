#include "sweep_sandbox.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace Sweep {

std::string Sandbox::snapshot(std::vector<Finding>& findings) {
    std::vector<std::string> lines;
    std::set<std::string> seen;
    for (auto const& [path, object] : drive->walk("root")) {
        if (!seen.insert(path).second)
            findings.push_back({"no two objects of one name", "/" + path});
        lines.push_back("/" + path + (object.isDir ? " folder" : " file " + object.md5));
    }
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
