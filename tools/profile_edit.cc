#include "profile_edit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

namespace gdhost {

namespace {

bool writeAll(int fd, std::string const& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

}  // namespace

std::string profileKey(std::string const& line) {
    size_t equals = line.find('=');
    size_t first = line.find_first_not_of(" \t");
    if (equals == std::string::npos || first == equals || line[first] == '#' || line[first] == ';')
        return "";
    std::string key = line.substr(first, line.find_last_not_of(" \t", equals - 1) + 1 - first);
    std::replace(key.begin(), key.end(), '_', '-');
    return key;
}

bool setProfileKeys(std::string const& path,
                    std::vector<std::pair<std::string, std::string>> const& settings,
                    std::string& error) {
    auto lineFor = [](std::pair<std::string, std::string> const& setting) {
        return setting.first + " = \"" + setting.second + "\"\n";
    };
    std::string content;
    std::set<size_t> written;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::string key = profileKey(line);
        auto match = std::find_if(settings.begin(), settings.end(), [&key](auto const& s) {
            return profileKey(s.first + "=") == key;
        });
        if (key.empty() || match == settings.end()) {
            content += line + "\n";
        } else if (written.insert(size_t(match - settings.begin())).second) {
            content += lineFor(*match);
        }
    }
    for (size_t i = 0; i < settings.size(); ++i) {
        if (!written.count(i)) content += lineFor(settings[i]);
    }

    std::error_code ignored;
    std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty()) std::filesystem::create_directories(folder, ignored);
    std::string temporary = path + ".XXXXXX";
    int fd = ::mkstemp(&temporary[0]);
    if (fd < 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    bool ok = ::fchmod(fd, 0600) == 0 && writeAll(fd, content) && ::fsync(fd) == 0;
    int saved = errno;
    ok = ::close(fd) == 0 && ok;
    if (ok && ::rename(temporary.c_str(), path.c_str()) == 0) {
        // The new name lasts through a power cut once the folder is synced.
        int dir = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY);
        if (dir >= 0) {
            ::fsync(dir);
            ::close(dir);
        }
        return true;
    }
    error = "cannot write " + path + ": " + std::strerror(ok ? errno : saved);
    ::unlink(temporary.c_str());
    return false;
}

}  // namespace gdhost
