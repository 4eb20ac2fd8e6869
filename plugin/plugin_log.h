// Syslog lines of the plug-in: every format begins with "%s:%d " and takes the
// source file's name and the line first, so that a line in the NAS log leads
// straight to the code that wrote it. Each .cc defines kLogSource.
#pragma once

#include <syslog.h>

#define GD_LOG(priority, fmt, ...) \
    syslog(priority, "%s:%d " fmt, kLogSource, __LINE__, ##__VA_ARGS__)
