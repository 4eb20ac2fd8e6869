#include "other_client.h"

#include <cctype>
#include <optional>

namespace DriveEmulator {

namespace {
char const* const kNames[] = {"delete",     "move",      "rename",        "recreate", "copy",
                              "copy_other", "case_twin", "second_parent", "trash"};
}  // namespace

std::string changeName(Change change) { return kNames[static_cast<int>(change)]; }

Change changeFromName(std::string const& name) {
    for (int i = 0; i < int(std::size(kNames)); ++i) {
        if (name == kNames[i]) return static_cast<Change>(i);
    }
    throw Error(400, "unknown change: " + name);
}

std::string caseTwinName(std::string const& name) {
    for (size_t i = 0; i < name.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (std::isalpha(c)) {
            std::string twin = name;
            twin[i] = static_cast<char>(std::islower(c) ? std::toupper(c) : std::tolower(c));
            return twin;
        }
    }
    return "";
}

std::string makeOther(Drive& drive, std::string const& parentId, std::string const& name,
                      bool isDir) {
    std::string const content = "another client's " + name;
    if (!isDir) return drive.put(parentId, name, content);
    std::string folder = drive.mkdir(parentId, name);
    drive.put(folder, "other", content);
    return folder;
}

std::string applyChange(Drive& drive, Change change, std::string const& id,
                        std::string const& elsewhere) {
    Object const object = drive.stat(id);
    if (object.parents.empty()) throw Error(400, "the root is not changed");
    std::string const& parent = object.parents.front();
    switch (change) {
        case Change::Delete:
            drive.remove(id);
            return id;
        case Change::Move:
            drive.move(id, elsewhere);
            return id;
        case Change::Rename:
            drive.rename(id, object.name + ".renamed");
            return id;
        case Change::Recreate:
            return drive.recreate(id);
        case Change::Copy:
            return drive.duplicate(id);
        case Change::CopyOther:
            return makeOther(drive, parent, object.name, object.isDir);
        case Change::CaseTwin: {
            std::string twin = caseTwinName(object.name);
            if (twin.empty()) throw Error(400, object.name + " has no letter to turn over");
            return makeOther(drive, parent, twin, object.isDir);
        }
        case Change::SecondParent:
            drive.addParent(id, elsewhere);
            return id;
        case Change::Trash:
            drive.trash(id);
            return id;
    }
    throw Error(400, "unknown change");
}

std::string applyChangeAt(Drive& drive, Change change, std::string const& path, bool isFile) {
    auto one = [&drive](std::string const& at) -> std::optional<std::string> {
        auto found = drive.at(at.empty() ? "/" : at);
        return found.size() == 1 ? std::optional<std::string>(found[0].id) : std::nullopt;
    };
    for (std::string at = path; at.size() > 1; at.erase(at.rfind('/'))) {
        std::string const twin = caseTwinName(at.substr(at.rfind('/') + 1));
        auto here = one(at), parent = one(at.substr(0, at.rfind('/')));
        if (change == Change::CaseTwin && parent && !twin.empty()) {
            if (!here) makeOther(drive, *parent, twin, !(isFile && at == path));
            if (here) applyChange(drive, change, *here, "");
            return at;
        }
        if (change == Change::CaseTwin || !here) continue;
        bool elsewhere = change == Change::Move || change == Change::SecondParent;
        applyChange(drive, change, *here, elsewhere ? drive.mkdir("root", "elsewhere") : "");
        return at;
    }
    return "";
}

}  // namespace DriveEmulator
