// Slash-path helpers of the engine. Pure string functions: nothing touches
// the file system except absPath, which reads the working directory.
#pragma once

#include <string>
#include <vector>

namespace TAVO {
namespace Backup {
namespace Path {

// Joins up to seven components. Empty components are skipped; neighbours are
// separated by exactly one "/" (a component's own leading or trailing slashes
// do not double it); the leading "/" of the first component is kept; slashes
// inside a component are left alone. join("/", "") is "/".
std::string join(std::string const& a, std::string const& b, std::string const& c = "",
                 std::string const& d = "", std::string const& e = "",
                 std::string const& f = "", std::string const& g = "");

// Splits `path` on "/". Trailing slashes are ignored; for an absolute path the
// first element is the empty string standing for the root, followed by one
// element per level ("/a/b" -> "", "a", "b"; "/" -> ""). Empty components
// from a doubled slash inside the path are kept as empty elements. An empty
// path yields an empty list. Returns false (parts cleared) when the path holds
// a NUL byte.
bool split(std::string const& path, std::vector<std::string>& parts);

// Everything before the last component: "/a/b" -> "/a", "/a" -> "/",
// "a" -> ".", "/" -> "/". Trailing slashes are ignored.
std::string dirname(std::string const& path);

// The last component: "/a/b" -> "b", "/a/b/" -> "b", "/" -> "/".
std::string basename(std::string const& path);

// `path` made absolute against the working directory, with "." components and
// repeated slashes removed and ".." folded lexically (no symlink resolution).
std::string absPath(std::string const& path);

}  // namespace Path
}  // namespace Backup
}  // namespace TAVO
