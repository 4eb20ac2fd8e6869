// The search expressions of "listObjects", parsed as Drive parses them, for
// the subset the plug-in sends and a little more:
//
//   'ID' in parents            name = 'x'   name != 'x'
//   name contains 'x'          (a prefix of the name or of one of its words, as Drive matches)
//   trashed = true|false       mimeType = 'application/vnd.google-apps.folder' (or !=)
//   and, or, not, parentheses
//
// String literals are single-quoted; inside them \' stands for an apostrophe
// and \\ for a backslash, and any other backslash is an error. Keywords (and,
// or, not, in, contains, true, false) are case-insensitive, field names are
// not. Name comparisons ignore case. Anything else is refused with
// Error(400, "Invalid Value"), which is what Drive answers.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace DriveEmulator {

struct QueryNode {
    enum class Type { And, Or, Not, InParents, NameEquals, NameContains, Trashed, IsFolder };
    Type type;
    std::string value;                                 // InParents: the id; Name*: the name
    bool truth = true;                                 // Trashed, IsFolder: the value compared with
    std::vector<std::unique_ptr<QueryNode>> children;  // And, Or: two or more; Not: one
};

struct ParsedQuery {
    std::unique_ptr<QueryNode> root;
    bool filtersByName = false;  // some name term appears (the listings Drive lags behind on)
    // The id of a parents term that every match must satisfy (a top-level
    // conjunct), if any: the listing then reads that folder only.
    std::string requiredParent;
};

// Parses `text`; throws Error(400, "Invalid Value") when it is ill-formed.
ParsedQuery parseQuery(std::string const& text);

// An SQL condition over the objects table (alias `o`) equivalent to `node`,
// its literals appended to `params` in placeholder order; a parents term
// naming "root" stands for `rootId`.
std::string queryToSql(QueryNode const& node, std::vector<std::string>& params,
                       std::string const& rootId);

}  // namespace DriveEmulator
