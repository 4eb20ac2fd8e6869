// What another client of the account (the web interface, another NAS) does to
// an object between two requests of the plug-in, for tests and people to stage
// through the control library.
#pragma once

#include <string>

#include "drive_control.h"

namespace DriveEmulator {

enum class Change {
    Delete,        // deleted for good, with what is below it
    Move,          // moved to `elsewhere`
    Rename,        // renamed to NAME.renamed
    Recreate,      // deleted and made again, with what is below it, under new ids
    Copy,          // another object of the same name and contents beside it (a folder empty)
    CopyOther,     // another object of the same name and kind with other contents
    CaseTwin,      // as CopyOther, under the name with its first letter's case turned over
    SecondParent,  // `elsewhere` added to its parents
    Trash,         // put in the trash, with what is below it
};

// "delete", "move", "rename", "recreate", "copy", "copy_other", "case_twin",
// "second_parent", "trash"; Error(400) for an unknown name.
std::string changeName(Change change);
Change changeFromName(std::string const& name);

// `name` with the case of its first ASCII letter turned over ("lock": "Lock");
// empty when it has no letter.
std::string caseTwinName(std::string const& name);

// Makes an object named `name` in `parentId` with contents of its own: a file,
// or a folder holding one. Returns its id.
std::string makeOther(Drive& drive, std::string const& parentId, std::string const& name,
                      bool isDir);

// Does `change` to the object `id`; returns the id of the object it made (or
// `id`). Error(400) for a case twin of a name without letters, and as the
// control library refuses (the root, an unknown id).
std::string applyChange(Drive& drive, Change change, std::string const& id,
                        std::string const& elsewhere);

// Does `change` at the absolute `path`: to the one object there, else to the
// nearest folder above it that is there (not the root). A case twin is made of
// the deepest name with a letter whose folder is there, even when nothing of
// that name is there yet (a file if that is `path` and `isFile`). Move and
// SecondParent use a folder "elsewhere" made in the root. Returns the path
// changed; empty when nothing could be.
std::string applyChangeAt(Drive& drive, Change change, std::string const& path, bool isFile);

}  // namespace DriveEmulator
