#include "output_format.h"

#include <json/writer.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>

namespace gdhost {

std::string humanBytes(int64_t bytes) {
    static char const* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string counted(int64_t count, std::string const& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string escapeControls(std::string const& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            char octal[8];
            snprintf(octal, sizeof octal, "\\%03o", c);
            out += octal;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string validUtf8(std::string const& text) {
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t length = c < 0x80         ? 1
                        : (c >> 5) == 6  ? 2
                        : (c >> 4) == 14 ? 3
                        : (c >> 3) == 30 ? 4
                                         : 0;
        bool valid =
            length > 0 && i + length <= text.size() && !(c == 0xc0 || c == 0xc1 || c > 0xf4);
        if (valid && length >= 3) {  // no overlong forms, no surrogates, nothing above U+10FFFF
            unsigned char d = static_cast<unsigned char>(text[i + 1]);
            valid = !((c == 0xe0 && d < 0xa0) || (c == 0xed && d > 0x9f) ||
                      (c == 0xf0 && d < 0x90) || (c == 0xf4 && d > 0x8f));
        }
        for (size_t k = 1; valid && k < length; ++k) {
            valid = (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
        }
        if (valid) {
            out.append(text, i, length);
            i += length;
        } else {
            out += "\xef\xbf\xbd";
            ++i;
        }
    }
    return out;
}

std::string readableTime(int64_t epochSeconds) {
    time_t seconds = static_cast<time_t>(epochSeconds);
    struct tm local;
    char text[32] = "-";
    if (localtime_r(&seconds, &local)) strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

Json::Value entryJson(TAVO::Backup::FileInfo const& info, std::string const& name) {
    Json::Value entry(Json::objectValue);
    entry["name"] = validUtf8(name);
    entry["type"] = info.isDirType() ? "folder" : "file";
    entry["size"] = static_cast<Json::Int64>(info.getSize());
    entry["mtime"] = static_cast<Json::Int64>(info.getMtime());
    entry["modified"] = readableTime(info.getMtime());
    if (!info.isDirType()) entry["md5"] = validUtf8(info.getChecksum());
    return entry;
}

void printLongHeader() {
    printf("%-6s %14s  %-19s  %-32s  %s\n", "TYPE", "SIZE", "MODIFIED", "MD5", "NAME");
}

void printLongLine(TAVO::Backup::FileInfo const& info, std::string const& name) {
    bool folder = info.isDirType();
    printf("%-6s %14" PRId64 "  %-19s  %-32s  %s%s\n", folder ? "folder" : "file",
           static_cast<int64_t>(info.getSize()), readableTime(info.getMtime()).c_str(),
           folder ? "-" : info.getChecksum().c_str(), name.c_str(), folder ? "/" : "");
}

namespace {

// `value` with every string (keys included) made valid UTF-8.
Json::Value withValidUtf8(Json::Value const& value) {
    if (value.isString()) return validUtf8(value.asString());
    if (value.isArray()) {
        Json::Value out(Json::arrayValue);
        for (Json::Value const& item : value) out.append(withValidUtf8(item));
        return out;
    }
    if (value.isObject()) {
        Json::Value out(Json::objectValue);
        for (std::string const& key : value.getMemberNames())
            out[validUtf8(key)] = withValidUtf8(value[key]);
        return out;
    }
    return value;
}

}  // namespace

void printJson(Json::Value const& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    // Local names need not be UTF-8 (a NAS holds Latin-1 names of old
    // shares); a document must be, whatever command made it.
    writer->write(withValidUtf8(document), &std::cout);
    std::cout << std::endl;
}

}  // namespace gdhost
