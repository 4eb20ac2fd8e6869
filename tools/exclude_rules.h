// The --exclude patterns of a tree command: which paths of the tree it leaves
// alone, on both sides.
#pragma once

#include <string>
#include <vector>

namespace gdhost {

// True when `text` matches the glob `pattern`: `*` any run of characters
// but "/", `**` any run at all (and "**/" also none), `?` one character but
// "/", `[abc]`, `[a-z]`, `[!a]` one of (or none of) a set; `\` takes the
// next character as it is.
bool globMatch(std::string const& pattern, std::string const& text);

class ExcludeRules {
  public:
    // Adds `pattern`: a leading "/" anchors it at the tree's top (else it
    // matches the path's end at any folder boundary: "*.tmp", "cache/*.o"), a
    // trailing "/" makes it match folders only. False with `error` set when
    // it is empty or a "[" is left open.
    bool add(std::string pattern, std::string& error);
    // Adds each line of `file` as a pattern, but empty lines and those that
    // start with "#". False with `error` set when it cannot be read or a
    // pattern is refused.
    bool addFrom(std::string const& file, std::string& error);

    bool empty() const { return _rules.empty(); }
    // True when `rpath` (relative to the top; a folder when `folder`) or a
    // folder above it is excluded.
    bool excludes(std::string const& rpath, bool folder) const;

  private:
    bool matchesItself(std::string const& rpath, bool folder) const;

    struct Rule {
        std::string glob;
        bool anchored = false, folderOnly = false;
    };
    std::vector<Rule> _rules;
};

}  // namespace gdhost
