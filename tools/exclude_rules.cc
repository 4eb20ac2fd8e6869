#include "exclude_rules.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace gdhost {

namespace {

// The end of the set that opens at `p` ('['), or npos when it is left open.
size_t setEnd(std::string const& p, size_t open) {
    size_t i = open + 1;
    if (i < p.size() && (p[i] == '!' || p[i] == '^')) ++i;
    if (i < p.size() && p[i] == ']') ++i;  // "[]...]": a ']' first is a member
    size_t close = p.find(']', i);
    return close;
}

bool inSet(std::string const& p, size_t open, size_t close, char c) {
    size_t i = open + 1;
    bool negated = i < close && (p[i] == '!' || p[i] == '^');
    if (negated) ++i;
    bool found = false;
    for (; i < close; ++i) {
        if (i + 2 < close && p[i + 1] == '-') {
            found = found || (p[i] <= c && c <= p[i + 2]);
            i += 2;
        } else {
            found = found || p[i] == c;
        }
    }
    return found != negated && c != '/';
}

bool matchAt(std::string const& p, size_t i, std::string const& t, size_t j) {
    while (i < p.size()) {
        char const c = p[i];
        if (c == '*') {
            bool const any = i + 1 < p.size() && p[i + 1] == '*';
            size_t next = i + (any ? 2 : 1);
            // "**/" also stands for no folder at all.
            if (any && next < p.size() && p[next] == '/' && matchAt(p, next + 1, t, j)) return true;
            for (size_t k = j;; ++k) {
                if (matchAt(p, next, t, k)) return true;
                if (k == t.size() || (!any && t[k] == '/')) return false;
            }
        }
        if (j == t.size()) return false;
        if (c == '?') {
            if (t[j] == '/') return false;
        } else if (c == '[') {
            size_t close = setEnd(p, i);
            if (!inSet(p, i, close, t[j])) return false;
            i = close;
        } else {
            if (c == '\\' && i + 1 < p.size()) ++i;
            if (p[i] != t[j]) return false;
        }
        ++i, ++j;
    }
    return j == t.size();
}

}  // namespace

bool globMatch(std::string const& pattern, std::string const& text) {
    return matchAt(pattern, 0, text, 0);
}

bool ExcludeRules::add(std::string pattern, std::string& error) {
    Rule rule;
    rule.anchored = !pattern.empty() && pattern.front() == '/';
    if (rule.anchored) pattern.erase(0, 1);
    rule.folderOnly = !pattern.empty() && pattern.back() == '/';
    if (rule.folderOnly) pattern.pop_back();
    if (pattern.empty()) {
        error = "an empty pattern matches nothing";
        return false;
    }
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '\\') {
            ++i;
        } else if (pattern[i] == '[') {
            i = setEnd(pattern, i);
            if (i == std::string::npos) {
                error = pattern + ": a \"[\" is not closed";
                return false;
            }
        }
    }
    rule.glob = std::move(pattern);
    _rules.push_back(std::move(rule));
    return true;
}

bool ExcludeRules::addFrom(std::string const& file, std::string& error) {
    std::ifstream in(file);
    if (!in) {
        error = file + ": " + strerror(errno);
        return false;
    }
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line.front() == '#') continue;
        if (!add(line, error)) return false;
    }
    return true;
}

bool ExcludeRules::matchesItself(std::string const& rpath, bool folder) const {
    for (Rule const& rule : _rules) {
        if (rule.folderOnly && !folder) continue;
        if (globMatch(rule.glob, rpath)) return true;
        if (rule.anchored) continue;
        for (size_t slash = rpath.find('/'); slash != std::string::npos;
             slash = rpath.find('/', slash + 1)) {
            if (globMatch(rule.glob, rpath.substr(slash + 1))) return true;
        }
    }
    return false;
}

bool ExcludeRules::excludes(std::string const& rpath, bool folder) const {
    if (_rules.empty()) return false;
    for (size_t slash = rpath.find('/'); slash != std::string::npos;
         slash = rpath.find('/', slash + 1)) {
        if (matchesItself(rpath.substr(0, slash), true)) return true;
    }
    return matchesItself(rpath, folder);
}

}  // namespace gdhost
