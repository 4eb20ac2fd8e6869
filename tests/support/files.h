// Private folders and whole files, for tests that need a few files.
#pragma once

#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace TestSupport {

// A new private folder named "/tmp/<prefix>-XXXXXX".
inline std::string makeTempFolder(std::string const& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (!mkdtemp(&pattern[0])) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

// A file's whole content ("" when missing).
inline std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeFile(std::string const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace TestSupport
