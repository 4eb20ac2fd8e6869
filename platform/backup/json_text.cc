#include "backup/json_text.h"

#include <json/reader.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace TAVO {
namespace JsonText {
namespace {

void appendQuoted(std::string& out, char const* s, size_t n) {
    static char const kHex[] = "0123456789abcdef";
    out += '"';
    size_t run = 0;  // start of the pending run of bytes that need no escape
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(s + run, i - run);
        run = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += "\\u00";
                out += kHex[c >> 4];
                out += kHex[c & 15];
        }
    }
    out.append(s + run, n - run);
    out += '"';
}

void appendReal(std::string& out, double d) {
    char buf[32];
    // Shortest text that reads back to the same double.
    for (int precision = 15; precision <= 17; ++precision) {
        snprintf(buf, sizeof buf, "%.*g", precision, d);
        if (strtod(buf, nullptr) == d) break;
    }
    out += buf;
    // Keep it a real when read back, as JsonCpp's writer does.
    bool hasMark = false;
    for (char const* p = buf; *p; ++p)
        if (*p == '.' || *p == 'e' || *p == 'E' || *p == 'n' || *p == 'i') hasMark = true;
    if (!hasMark) out += ".0";
}

void append(std::string& out, Json::Value const& v) {
    switch (v.type()) {
        case Json::nullValue:
            out += "null";
            break;
        case Json::intValue:
            out += std::to_string(v.asLargestInt());
            break;
        case Json::uintValue:
            out += std::to_string(v.asLargestUInt());
            break;
        case Json::realValue:
            appendReal(out, v.asDouble());
            break;
        case Json::booleanValue:
            out += v.asBool() ? "true" : "false";
            break;
        case Json::stringValue: {
            char const* b = nullptr;
            char const* e = nullptr;
            v.getString(&b, &e);
            appendQuoted(out, b, b ? static_cast<size_t>(e - b) : 0);
            break;
        }
        case Json::arrayValue: {
            out += '[';
            for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
                if (i) out += ',';
                append(out, v[i]);
            }
            out += ']';
            break;
        }
        case Json::objectValue: {
            out += '{';
            bool first = true;
            // Iteration follows JsonCpp's member map: ascending by key bytes.
            for (auto it = v.begin(); it != v.end(); ++it) {
                if (!first) out += ',';
                first = false;
                char const* kend = nullptr;
                char const* k = it.memberName(&kend);
                appendQuoted(out, k, static_cast<size_t>(kend - k));
                out += ':';
                append(out, *it);
            }
            out += '}';
            break;
        }
    }
}

Json::CharReader& strictReader() {
    // Building a reader is far dearer than parsing a short line: keep one per thread.
    thread_local std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    return *reader;
}

}  // namespace

std::string toString(Json::Value const& value) {
    std::string out;
    append(out, value);
    return out;
}

bool fromString(char const* begin, char const* end, Json::Value& value) {
    // JsonCpp stops at a NUL inside a string in some paths; refuse NUL outright.
    for (char const* p = begin; p != end; ++p)
        if (*p == '\0') return false;
    std::string errors;
    return strictReader().parse(begin, end, &value, &errors);
}

bool fromString(std::string const& text, Json::Value& value) {
    return fromString(text.data(), text.data() + text.size(), value);
}

}  // namespace JsonText
}  // namespace TAVO
