// Starting a child process connected by pipes to its standard input and output.
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// Our ends of the two pipes to a child: we write requests to `writeFd` (the
// child's stdin) and read its output from `readFd` (the child's stdout). Both
// are close-on-exec.
typedef struct TAVOPipe {
    int readFd;
    int writeFd;
} TAVOPipe;

// Starts `program` (a path; no PATH search) with the NULL-terminated argument
// list that follows, its stdin and stdout connected to a new TAVOPipe, its
// stderr inherited; no other descriptor of ours reaches it. The child starts
// with no signal blocked and SIGPIPE at its default action, and inherits the
// current environment. Fills *child with its pid and returns the pipe, or
// returns NULL with errno set (*child untouched, no child left behind) when
// the pipes cannot be made or the program cannot be executed (ENOENT,
// EACCES, ENOEXEC, ... as exec reported it).
//
// Off the NAS: when the environment variable TAVO_ROOT names a folder and
// "$TAVO_ROOT/<program>" exists, that file is run instead of `program`, like a
// chroot for the helper. Its argv[0] is the path actually run (so that a
// wrapper script can find its own folder); the other arguments are passed
// unchanged.
TAVOPipe* TAVOPipeOpen(pid_t* child, char const* program, ...) __attribute__((sentinel));

// Closes both ends and frees the handle; NULL is ignored. Does not wait for
// the child: reaping it is the caller's business.
void TAVOPipeFree(TAVOPipe* pipe);

#ifdef __cplusplus
}
#endif
