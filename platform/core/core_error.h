// The core library's per-thread error state: a code and where it was recorded.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Records `code` with the source file and line that recorded it.
void TLIBCErrSetEx(int code, char const* file, int line);
// The last recorded code of the calling thread; 0 when none.
int TLIBCErrGet(void);
// Where the last code was recorded (file may be NULL when none).
char const* TLIBCErrGetFile(void);
int TLIBCErrGetLine(void);

#ifdef __cplusplus
}
#endif
