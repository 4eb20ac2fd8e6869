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

// Starts `program` with the NULL-terminated argument list that follows
// (argv[0] is `program` itself), its stdin and stdout connected to a new
// TAVOPipe, its stderr inherited; no other descriptor of ours reaches it.
// Fills *child with its pid and returns the pipe, or NULL (errno set) when the
// pipes cannot be made or the program cannot be run.
//
// Off the NAS: when the environment variable TAVO_ROOT names a folder and
// "$TAVO_ROOT/<program>" exists, that file is run instead of `program`, like a
// chroot for the helper (the arguments are passed unchanged).
TAVOPipe* TAVOPipeOpen(pid_t* child, char const* program, ...) __attribute__((sentinel));

// Closes both ends and frees the handle; NULL is ignored. Does not wait for the child.
void TAVOPipeFree(TAVOPipe* pipe);

#ifdef __cplusplus
}
#endif
