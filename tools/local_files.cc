#include "local_files.h"

#include <openssl/evp.h>
#include <sys/stat.h>

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

void walk(fs::path const& top, std::string const& rpath, LocalTree& tree) {
    std::vector<fs::directory_entry> children;
    std::error_code error;
    for (fs::directory_iterator it(reachable(top / rpath), error), end; !error && it != end;
         it.increment(error)) {
        children.push_back(*it);
    }
    if (error) {
        tree.unreadable.emplace_back(rpath, error.message());
        return;
    }
    std::sort(children.begin(), children.end());
    for (auto const& child : children) {
        std::string name = child.path().filename().string();
        std::string childPath = rpath.empty() ? name : rpath + "/" + name;
        struct stat st;
        // An entry whose type cannot be learnt (a path too long for the
        // system, a name gone meanwhile) may be a regular file: a failure,
        // never a skip.
        if (lstat(reachable(child.path()).c_str(), &st) != 0) {
            tree.unknown.emplace_back(childPath,
                                      std::string("cannot examine it: ") + strerror(errno));
        } else if (S_ISDIR(st.st_mode)) {
            tree.entries.push_back({childPath, true, 0});
            walk(top, childPath, tree);
        } else if (S_ISREG(st.st_mode)) {
            tree.entries.push_back({childPath, false, static_cast<int64_t>(st.st_size),
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
