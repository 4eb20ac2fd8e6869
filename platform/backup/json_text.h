// The engine's JSON text helpers: one-line writer and strict parser.
#pragma once

#include <json/value.h>

#include <string>

namespace TAVO {
namespace JsonText {

// Compact one-line JSON text of `value`: no line feed and no spaces, object
// members in key order, strings as UTF-8 with only '"', '\\' and control
// characters escaped.
std::string toString(Json::Value const& value);

// Parses `text` as one JSON object or array (whitespace around it allowed).
// Returns false, leaving `value` unspecified, on any malformed input: bad
// syntax, trailing garbage, NUL bytes, duplicate keys, comments.
bool fromString(std::string const& text, Json::Value& value);
bool fromString(char const* begin, char const* end, Json::Value& value);

}  // namespace JsonText
}  // namespace TAVO
