#include "cache_merge.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "durable_file.h"

namespace gdhost {

std::map<std::string, std::string> readCacheLines(std::string const& path) {
    std::map<std::string, std::string> lines;
    std::ifstream in(path, std::ios::binary);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string line;
    while (std::getline(in, line)) {
        Json::Value value;
        if (!reader->parse(line.data(), line.data() + line.size(), &value, nullptr) ||
            !value.isObject() || !value["i"].isString() || value["i"].asString().empty()) {
            continue;
        }
        lines[value["i"].asString()] = line;
    }
    return lines;
}

std::map<std::string, std::string> mergeCacheLines(
    std::map<std::string, std::string> const& base,
    std::vector<std::map<std::string, std::string>> const& workers) {
    std::map<std::string, std::string> merged = base;
    std::set<std::string> dropped;
    for (auto const& worker : workers) {
        for (auto const& [id, line] : worker) {
            auto known = base.find(id);
            if (known == base.end() || known->second != line) merged[id] = line;
        }
        for (auto const& entry : base) {
            if (!worker.count(entry.first)) dropped.insert(entry.first);
        }
    }
    // A drop wins over a change: an entry kept wrongly costs a cache check
    // the whole cache, one missing costs a lookup.
    for (auto const& id : dropped) merged.erase(id);
    return merged;
}

bool writeCacheLines(std::string const& path, std::map<std::string, std::string> const& lines,
                     std::string& error) {
    std::string text;
    for (auto const& entry : lines) text += entry.second + "\n";
    return replaceFileDurably(path, text, error);
}

bool copyWholeFile(std::string const& from, std::string const& to) {
    std::error_code failed;
    std::uintmax_t const size = std::filesystem::file_size(from, failed);
    bool const whole = !failed &&
                       std::filesystem::copy_file(
                           from, to, std::filesystem::copy_options::overwrite_existing, failed) &&
                       std::filesystem::file_size(to, failed) == size && !failed;
    if (!whole) std::filesystem::remove(to, failed);
    return whole;
}

bool cacheMayKnowName(std::string const& path, std::string const& name) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::string const needle = "\"n\":" + Json::valueToQuotedString(name.c_str());
    std::string const text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return text.find(needle) != std::string::npos;
}

}  // namespace gdhost
