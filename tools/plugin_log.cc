#include "plugin_log.h"

#include <syslog.h>

namespace gdhost {

void showPluginLog(bool verbose) {
    openlog("gdrive_host", LOG_PERROR | LOG_PID, LOG_USER);
    setlogmask(verbose ? LOG_UPTO(LOG_DEBUG) : LOG_MASK(LOG_WARNING));
}

}  // namespace gdhost
