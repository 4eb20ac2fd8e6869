// Partial downloads left behind by a run that died (a second Ctrl-C, a kill):
// the plug-in fetches into a hidden temporary file beside the destination and
// renames it only when complete. Runs of the tool that download into a folder
// hold a shared lock on it, so that a later run can tell a dead run's
// leftovers from a live run's downloads.
#pragma once

#include <string>

namespace gdhost {

// True when `name` is of the form the plug-in gives a download's temporary
// file: ".NAME.tmp.XXXXXX" (NAME possibly cut short to fit the file system's
// limit on one name), the last six characters from mkstemp's alphabet.
bool isPartialDownloadName(std::string const& name);

// Removes the partial downloads in `folder` (regular files of this user whose
// name isPartialDownloadName) unless a live run of the tool is downloading
// into it. The number removed; 0 when the folder is held or unreadable.
int removeLeftoverDownloads(std::string const& folder);

// Holds the shared lock on a folder while a download lands in it.
class DownloadClaim {
  public:
    explicit DownloadClaim(std::string const& folder);
    ~DownloadClaim();
    DownloadClaim(DownloadClaim const&) = delete;
    DownloadClaim& operator=(DownloadClaim const&) = delete;

  private:
    int _fd = -1;
};

}  // namespace gdhost
