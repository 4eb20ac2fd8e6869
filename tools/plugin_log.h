// Where the plug-in's syslog lines go while the tool runs.
#pragma once

namespace gdhost {

// Copies the plug-in's syslog lines to stderr as they are written: with
// `verbose` all of them, else only warnings (retries and their pauses), so
// that a person sees a retry as it happens instead of a long silence.
void showPluginLog(bool verbose);

}  // namespace gdhost
