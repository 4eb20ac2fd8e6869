#include "local_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "failure.h"
#include "long_paths.h"
#include "md5_hex.h"

namespace gdhost {

namespace fs = std::filesystem;

std::string absoluteLocalPath(std::string const& path) {
    std::error_code ignored;
    std::string text = fs::absolute(fs::path(path), ignored).lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

std::string whyNotSendable(std::string const& path, bool& missing) {
    struct stat st;
    missing = false;
    if (lstat(reachable(path).c_str(), &st) != 0) {
        missing = errno == ENOENT;
        return strerror(errno);
    }
    if (S_ISDIR(st.st_mode)) return "is a folder; use copy to send a tree";
    return whyNotRegular(st.st_mode);
}

std::string whyNotRegular(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "";
        case S_IFDIR:
            return "is a folder";
        case S_IFLNK:
            return "is a symbolic link";
        case S_IFIFO:
            return "is a FIFO";
        case S_IFSOCK:
            return "is a socket";
        case S_IFCHR:
        case S_IFBLK:
            return "is a device";
        default:
            return "is not a regular file";
    }
}

std::string fileMd5(std::string const& path) {
    std::ifstream in(reachable(path), std::ios::binary);
    if (!in) return "";
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) return "";
    std::vector<char> buffer(1 << 20);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        if (in.gcount() > 0) EVP_DigestUpdate(ctx.get(), buffer.data(), in.gcount());
    }
    if (in.bad()) return "";
    return DriveAgent::finishHexDigest(ctx.get());
}

namespace {

void walk(std::string const& top, std::string const& rpath, LocalTree& tree) {
    // The children are examined through the folder's descriptor: the system
    // then does not walk the whole path again for each of them.
    std::string const folder = rpath.empty() ? top : top + "/" + rpath;
    int const fd = open(reachable(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
    if (!dir) {
        int const error = errno;
        if (fd >= 0) close(fd);
        tree.unreadable.emplace_back(rpath, strerror(error));
        return;
    }
    std::vector<std::string> names;
    errno = 0;
    while (dirent const* e = readdir(dir)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            names.emplace_back(e->d_name);
        errno = 0;
    }
    if (errno != 0) {
        tree.unreadable.emplace_back(rpath, strerror(errno));
        closedir(dir);
        return;
    }
    std::sort(names.begin(), names.end());
    std::vector<struct stat> stats(names.size());
    std::vector<int> errors(names.size(), 0);
    for (size_t i = 0; i < names.size(); ++i) {
        if (fstatat(dirfd(dir), names[i].c_str(), &stats[i], AT_SYMLINK_NOFOLLOW) != 0)
            errors[i] = errno;
    }
    closedir(dir);
    for (size_t i = 0; i < names.size(); ++i) {
        std::string childPath = rpath.empty() ? names[i] : rpath + "/" + names[i];
        struct stat const& st = stats[i];
        // An entry whose type cannot be learnt (a name gone meanwhile) may be
        // a regular file: a failure, never a skip.
        if (errors[i] != 0) {
            tree.unknown.emplace_back(childPath,
                                      std::string("cannot examine it: ") + strerror(errors[i]));
        } else if (S_ISDIR(st.st_mode)) {
            tree.entries.push_back({childPath, true, 0});
            walk(top, childPath, tree);
        } else if (S_ISREG(st.st_mode)) {
            tree.entries.push_back({std::move(childPath), false, static_cast<int64_t>(st.st_size),
                                    nanosOf(st.st_mtim), nanosOf(st.st_ctim), st.st_mode});
        } else {
            tree.skipped.emplace_back(childPath, whyNotRegular(st.st_mode));
        }
    }
}

}  // namespace

bool listLocalTree(std::string const& top, LocalTree& tree, std::string& error, int& exitCode) {
    struct stat st;
    if (lstat(reachable(top).c_str(), &st) != 0) {
        error = strerror(errno);
        exitCode = errno == ENOENT || errno == ENOTDIR ? kExitFolderNotFound : kExitError;
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        error = "is not a folder";
        exitCode = kExitUsage;
        return false;
    }
    walk(top, "", tree);
    // The top itself must be readable: an unreadable top is no tree at all.
    if (!tree.unreadable.empty() && tree.unreadable.front().first.empty()) {
        error = tree.unreadable.front().second;
        exitCode = kExitError;
        return false;
    }
    return true;
}

bool isWithin(std::string const& rpath, std::string const& folder) {
    return folder.empty() || rpath == folder ||
           (rpath.size() > folder.size() && rpath.compare(0, folder.size(), folder) == 0 &&
            rpath[folder.size()] == '/');
}

bool makeLocalFolders(std::string const& path) {
    if (reachable(path) != path) return makeFoldersAnyLength(path);
    std::error_code error;
    fs::create_directories(path, error);
    if (error) errno = error.value();
    return !error;
}

}  // namespace gdhost
