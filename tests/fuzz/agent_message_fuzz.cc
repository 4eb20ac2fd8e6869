// Drive agent output as the plug-in reads it: the channel splits the bytes
// into lines and parses each, then the object record and its conversion for
// the engine read the message. The plug-in's edge catches any exception, so
// this target does so too; the channel must still hand over an object.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "googledrive_client.h"
#include "googledrive_meta.h"

using namespace TAVO::Backup;

namespace {

// A drive agent channel reading from a pipe the target fills.
class FedClient : public GoogleDriveClient {
  public:
    explicit FedClient(int readFd) {
        setRetryPolicy(1, 0, needRetry);
        _pipe = static_cast<TAVOPipe*>(malloc(sizeof(TAVOPipe)));
        _pipe->readFd = readFd;
        _pipe->writeFd = -1;
    }
};

void readRecord(Json::Value const& object) {
    GoogleDrive::FileMeta meta;
    meta.setFileMeta(object);
    FileInfo info(meta.name);
    fileMetaToFileInfo(meta, info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    int fds[2];
    if (pipe(fds) != 0) abort();
    // The whole input must fit in the pipe, which nobody drains while it is written.
    size = std::min<size_t>(size, static_cast<size_t>(fcntl(fds[1], F_GETPIPE_SZ)));
    if (write(fds[1], data, size) != static_cast<ssize_t>(size)) abort();
    close(fds[1]);

    FedClient client(fds[0]);
    Json::Value response;
    bool retry = false;
    while (client.isConnected()) {
        try {
            client.readResponse(response, retry);
            if (!response.isObject()) abort();  // the channel promises an object
            needRetry(response);
            readRecord(response);
            if (response.isMember("objects") && response["objects"].isArray())
                for (Json::Value const& object : response["objects"]) readRecord(object);
        } catch (std::exception const&) {
            response = Json::Value(Json::objectValue);
        }
    }
    return 0;
}
