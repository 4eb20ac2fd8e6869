// How Drive reads names: inside the quotes of a query, and when it compares
// two of them. Shared by the requests and the path resolution.
#pragma once

#include <string>

namespace TAVO {
namespace Backup {

// `value` for the inside of a quoted query literal: Drive's query language
// reads \' as an apostrophe and \\ as a backslash; nothing else needs escaping.
inline std::string escapeQueryLiteral(std::string const& value) {
    if (value.find_first_of("'\\") == std::string::npos) return value;
    std::string escaped;
    escaped.reserve(value.size() + 8);
    for (char c : value) {
        if (c == '\'' || c == '\\') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

// The key under which Drive takes two names for one: it compares them without
// case. Folding ASCII letters covers the names a backup writes.
inline std::string foldName(std::string name) {
    for (char& c : name) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return name;
}

}  // namespace Backup
}  // namespace TAVO
