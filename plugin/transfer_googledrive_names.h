// How Drive reads names inside the quotes of a query.
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

}  // namespace Backup
}  // namespace TAVO
