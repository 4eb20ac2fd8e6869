#include "drive_control.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <type_traits>

#include "content_copy.h"
#include "faults.h"
#include "fd.h"
#include "ids.h"
#include "request_log.h"
#include "store.h"

namespace DriveEmulator {

namespace {

[[noreturn]] void localFailure(std::string const& what, std::string const& path) {
    throw Error(500, what + " " + path + ": " + std::strerror(errno));
}

// Runs `change` in one write transaction.
template <typename F>
auto inWrite(Store& store, F&& change) -> decltype(change()) {
    WriteTransaction txn(store.db());
    if constexpr (std::is_void_v<decltype(change())>) {
        change();
        txn.commit();
    } else {
        auto result = change();
        txn.commit();
        return result;
    }
}

// Runs `read` on one consistent snapshot.
template <typename F>
auto inRead(Store& store, F&& read) -> decltype(read()) {
    ReadTransaction txn(store.db());
    return read();
}

// Commits new contents written to `blob` as a new file or a new version.
std::string adopt(Store& store, PendingBlob& blob, NewContent content,
                  std::function<std::string(NewContent const&)> const& apply) {
    if (content.size > 0) {
        blob.publish(inRead(store, [&] { return store.settings().fsync; }));
    } else {
        content.blob.clear();
    }
    std::string id = apply(content);
    if (content.size > 0) blob.keep();
    return id;
}

// Writes the whole of `content` to `fd`; throws Error(500) naming `where`.
void writeAll(int fd, std::string const& content, std::string const& where) {
    for (size_t done = 0; done < content.size();) {
        ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) localFailure("cannot write", where);
        done += static_cast<size_t>(n);
    }
}

}  // namespace

Drive::Drive(std::unique_ptr<Store> store) : _store(std::move(store)) {}
Drive::Drive(Drive&&) noexcept = default;
Drive& Drive::operator=(Drive&&) noexcept = default;
Drive::~Drive() = default;

Drive Drive::init(std::string const& folder, AccountOptions const& options) {
    Store::create(folder, options);
    return open(folder);
}

Drive Drive::open(std::string const& folder) { return Drive(std::make_unique<Store>(folder)); }

bool Drive::hasAccount(std::string const& folder) { return Store::hasAccount(folder); }

std::string const& Drive::folder() const { return _store->folder(); }

Account Drive::account() {
    return inRead(*_store, [&] { return _store->account(); });
}

void Drive::setQuota(std::optional<std::int64_t> quota) {
    inWrite(*_store, [&] { _store->setQuota(quota); });
}

std::string Drive::rootId() { return _store->rootId(); }

Object Drive::stat(std::string const& id) {
    return inRead(*_store, [&] { return _store->get(id).object; });
}

bool Drive::exists(std::string const& id) {
    return inRead(*_store, [&] { return _store->find(id).has_value(); });
}

std::vector<Object> Drive::children(std::string const& parentId, bool includeTrashed) {
    return inRead(*_store, [&] {
        _store->get(parentId);
        return _store->children(parentId, includeTrashed);
    });
}

std::vector<Object> Drive::lookup(std::string const& parentId, std::string const& name,
                                  bool includeTrashed) {
    return inRead(*_store, [&] { return _store->lookup(parentId, name, includeTrashed); });
}

std::string Drive::idByPath(std::string const& path) {
    if (path.empty() || path[0] != '/') throw Error(400, "not an absolute path: " + path);
    return inRead(*_store, [&] {
        std::string id = _store->rootId();
        size_t start = 1;
        while (start < path.size()) {
            size_t end = path.find('/', start);
            if (end == std::string::npos) end = path.size();
            std::string name = path.substr(start, end - start);
            start = end + 1;
            if (name.empty()) continue;
            auto found = _store->lookup(id, name, false);
            if (found.empty()) throw Error(404, "File not found: " + path + ".");
            if (found.size() > 1) throw Error(400, "more than one object at " + path);
            id = found.front().id;
        }
        return id;
    });
}

std::vector<Object> Drive::at(std::string const& path) {
    if (path.empty() || path[0] != '/') throw Error(400, "not an absolute path: " + path);
    return inRead(*_store, [&] {
        std::vector<Object> found{_store->get("root").object};
        for (size_t start = 1, end; start < path.size() && !found.empty(); start = end + 1) {
            end = std::min(path.find('/', start), path.size());
            std::string const name = path.substr(start, end - start);
            std::vector<Object> next;
            for (auto const& folder : found) {
                for (auto& child : _store->lookup(folder.id, name, false)) {
                    if (child.name == name) next.push_back(child);
                }
            }
            found = std::move(next);
        }
        return found;
    });
}

std::string Drive::mkdir(std::string const& parentId, std::string const& name) {
    return inWrite(*_store, [&] { return _store->createFolder(parentId, name, 0).id; });
}

std::string Drive::put(std::string const& parentId, std::string const& name,
                       std::string const& content) {
    PendingBlob blob(_store->blobs());
    writeAll(blob.fd(), content, _store->blobs().folder());
    NewContent stored{blob.name(), static_cast<std::int64_t>(content.size()), md5Hex(content)};
    return adopt(*_store, blob, stored, [&](NewContent const& c) {
        return inWrite(*_store, [&] { return _store->createFile(parentId, name, c, 0).id; });
    });
}

std::string Drive::putFile(std::string const& parentId, std::string const& name,
                           std::string const& localPath) {
    Fd in(::open(localPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) localFailure("cannot read", localPath);
    PendingBlob blob(_store->blobs());
    CopyResult copied = copyWithMd5(in.get(), blob.fd(), 0, ProgressCallback());
    NewContent stored{blob.name(), copied.bytes, copied.md5};
    return adopt(*_store, blob, stored, [&](NewContent const& c) {
        return inWrite(*_store, [&] { return _store->createFile(parentId, name, c, 0).id; });
    });
}

void Drive::update(std::string const& id, std::string const& content) {
    PendingBlob blob(_store->blobs());
    writeAll(blob.fd(), content, _store->blobs().folder());
    NewContent stored{blob.name(), static_cast<std::int64_t>(content.size()), md5Hex(content)};
    std::string old;
    adopt(*_store, blob, stored, [&](NewContent const& c) {
        old = inWrite(*_store, [&] { return _store->updateFile(id, c); });
        return id;
    });
    _store->blobs().discard(old);
}

std::string Drive::content(std::string const& id) {
    StoredObject stored = inRead(*_store, [&] { return _store->get(id); });
    if (stored.object.isDir) throw Error(400, "a folder has no content: " + id);
    if (stored.blob.empty()) return std::string();
    Fd in(::open(_store->blobs().path(stored.blob).c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) localFailure("cannot read", _store->blobs().path(stored.blob));
    std::string data(stored.object.size, '\0');
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::read(in.get(), &data[done], data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    data.resize(done);
    return data;
}

void Drive::get(std::string const& id, std::string const& localPath) {
    StoredObject stored = inRead(*_store, [&] { return _store->get(id); });
    if (stored.object.isDir) throw Error(400, "a folder has no content: " + id);
    Fd out(::open(localPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (out.get() < 0) localFailure("cannot write", localPath);
    if (stored.blob.empty()) return;
    Fd in(::open(_store->blobs().path(stored.blob).c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) localFailure("cannot read", _store->blobs().path(stored.blob));
    copyBytes(in.get(), out.get(), static_cast<std::int64_t>(stored.object.size), 0,
              ProgressCallback());
}

std::string Drive::duplicate(std::string const& id) {
    StoredObject original = inRead(*_store, [&] { return _store->get(id); });
    if (original.object.parents.empty()) throw Error(403, "The root folder cannot be copied.");
    // Each version of contents has a file of its own, so that updating or
    // deleting one copy never touches the other: link under a new name.
    std::string blob;
    if (!original.blob.empty()) {
        blob = randomToken(24);
        if (::link(_store->blobs().path(original.blob).c_str(),
                   _store->blobs().path(blob).c_str()) != 0) {
            localFailure("cannot copy", _store->blobs().path(original.blob));
        }
    }
    try {
        return inWrite(*_store, [&] {
            Object const& o = original.object;
            std::string first = o.parents.front();
            std::string copy =
                o.isDir ? _store->createFolder(first, o.name, 0).id
                        : _store
                              ->createFile(first, o.name,
                                           {blob, static_cast<std::int64_t>(o.size), o.md5}, 0)
                              .id;
            if (o.parents.size() > 1) _store->setParents(copy, o.parents);
            return copy;
        });
    } catch (...) {
        _store->blobs().discard(blob);
        throw;
    }
}

std::vector<Placed> Drive::walk(std::string const& id, bool includeTrashed) {
    return inRead(*_store, [&] {
        std::vector<Placed> found;
        std::function<void(std::string const&, std::string const&)> visit = [&](auto& folder,
                                                                                auto& prefix) {
            for (auto& child : _store->children(folder, includeTrashed)) {
                found.push_back({prefix + child.name, child});
                if (child.isDir) visit(child.id, prefix + child.name + "/");
            }
        };
        visit(_store->get(id).object.id, "");
        return found;
    });
}

std::string Drive::recreate(std::string const& id) {
    // The tree, parents before children, each file's contents linked to a new blob.
    std::vector<StoredObject> tree = inRead(*_store, [&] {
        std::vector<StoredObject> found{_store->get(id)};
        for (size_t i = 0; i < found.size(); ++i) {
            for (auto const& child : _store->children(found[i].object.id, false)) {
                auto same = [&](StoredObject const& s) { return s.object.id == child.id; };
                if (std::none_of(found.begin(), found.end(), same))
                    found.push_back(_store->get(child.id));
            }
        }
        return found;
    });
    if (tree.front().object.parents.empty())
        throw Error(403, "The root folder cannot be replaced.");
    std::vector<std::string> linked;
    try {
        for (auto& node : tree) {
            if (node.blob.empty()) continue;
            std::string blob = randomToken(24);
            if (::link(_store->blobs().path(node.blob).c_str(),
                       _store->blobs().path(blob).c_str()) != 0) {
                localFailure("cannot copy", _store->blobs().path(node.blob));
            }
            linked.push_back(node.blob = blob);
        }
        auto discarded = inWrite(*_store, [&] {
            std::map<std::string, std::string> renewed;
            for (auto const& node : tree) {
                Object const& o = node.object;
                std::vector<std::string> parents;
                for (auto const& p : o.parents) {
                    parents.push_back(renewed.count(p) ? renewed[p] : p);
                }
                std::string copy =
                    o.isDir
                        ? _store->createFolder(parents.front(), o.name, 0).id
                        : _store
                              ->createFile(parents.front(), o.name,
                                           {node.blob, static_cast<std::int64_t>(o.size), o.md5}, 0)
                              .id;
                if (parents.size() > 1) _store->setParents(copy, parents);
                _store->setMtime(copy, o.mtime);
                renewed[o.id] = copy;
            }
            return std::make_pair(renewed[id], _store->remove(id));
        });
        for (auto const& blob : discarded.second) _store->blobs().discard(blob);
        return discarded.first;
    } catch (...) {
        for (auto const& blob : linked) _store->blobs().discard(blob);
        throw;
    }
}

void Drive::rename(std::string const& id, std::string const& name) {
    inWrite(*_store, [&] { _store->rename(id, name); });
}

void Drive::move(std::string const& id, std::string const& newParentId) {
    inWrite(*_store, [&] { _store->setParents(id, {newParentId}); });
}

void Drive::addParent(std::string const& id, std::string const& parentId) {
    inWrite(*_store, [&] {
        auto parents = _store->get(id).object.parents;
        parents.push_back(_store->resolve(parentId));
        _store->setParents(id, parents);
    });
}

void Drive::removeParent(std::string const& id, std::string const& parentId) {
    inWrite(*_store, [&] {
        auto parents = _store->get(id).object.parents;
        std::string gone = _store->resolve(parentId);
        std::vector<std::string> kept;
        for (auto const& p : parents) {
            if (p != gone) kept.push_back(p);
        }
        if (kept.size() == parents.size()) throw Error(400, gone + " is not a parent of " + id);
        if (kept.empty()) throw Error(400, "An object needs at least one parent.");
        _store->setParents(id, kept);
    });
}

void Drive::trash(std::string const& id) {
    inWrite(*_store, [&] { _store->setTrashed(id, true); });
}

void Drive::untrash(std::string const& id) {
    inWrite(*_store, [&] { _store->setTrashed(id, false); });
}

void Drive::remove(std::string const& id) {
    auto blobs = inWrite(*_store, [&] { return _store->remove(id); });
    for (auto const& blob : blobs) _store->blobs().discard(blob);
}

void Drive::setMtime(std::string const& id, std::int64_t mtime) {
    inWrite(*_store, [&] { _store->setMtime(id, mtime); });
}

Settings Drive::settings() {
    return inRead(*_store, [&] { return _store->settings(); });
}

void Drive::setSettings(Settings const& settings) {
    inWrite(*_store, [&] { _store->setSettings(settings); });
}

std::int64_t Drive::addFault(Fault const& fault) {
    return inWrite(*_store, [&] { return DriveEmulator::addFault(_store->db(), fault); });
}

std::vector<Fault> Drive::faults() {
    return inRead(*_store, [&] { return listFaults(_store->db()); });
}

void Drive::clearFaults() {
    inWrite(*_store, [&] { DriveEmulator::clearFaults(_store->db()); });
}

std::vector<LogEntry> Drive::requestLog() {
    return inRead(*_store, [&] { return readLog(_store->db()); });
}

std::int64_t Drive::countRequests(std::string const& fn) {
    return inRead(*_store, [&] { return countLog(_store->db(), fn); });
}

void Drive::clearRequestLog() {
    inWrite(*_store, [&] { clearLog(_store->db()); });
}

}  // namespace DriveEmulator
