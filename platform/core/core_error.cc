#include "core/core_error.h"

namespace {
thread_local int t_code = 0;
thread_local char const* t_file = nullptr;
thread_local int t_line = 0;
}  // namespace

extern "C" void TLIBCErrSetEx(int code, char const* file, int line) {
    t_code = code;
    t_file = file;
    t_line = line;
}

extern "C" int TLIBCErrGet(void) { return t_code; }
extern "C" char const* TLIBCErrGetFile(void) { return t_file; }
extern "C" int TLIBCErrGetLine(void) { return t_line; }
