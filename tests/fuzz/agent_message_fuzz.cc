// Drive agent output as the plug-in reads it: the channel splits the bytes
// into lines and parses each, then the object record and its conversion for
// the engine read the message. The plug-in's edge catches any exception, so
// this target does so too; the channel must still hand over an object.
// Each line also goes to the dedicated listing page reader, which must agree
// with the general parser wherever it accepts a line.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "backup/json_text.h"
#include "googledrive_client.h"
#include "googledrive_meta.h"
#include "googledrive_meta_page.h"

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

// What listObjects makes of a line the page reader took, read the general way.
void checkPageReader(std::string_view line) {
    GoogleDrive::ListingPage page;
    if (!GoogleDrive::readListingPage(line, page)) return;
    Json::Value answer;
    if (!TAVO::JsonText::fromString(line.data(), line.data() + line.size(), answer) ||
        !answer.isObject() || !answer.get("success", false).asBool() ||
        answer.get("nextPageToken", "").asString() != page.nextPageToken)
        abort();
    Json::Value const& objects = answer["objects"];
    if (objects.size() != page.objects.size()) abort();
    for (Json::ArrayIndex i = 0; i < objects.size(); ++i) {
        GoogleDrive::FileMeta meta;
        meta.setFileMeta(objects[i]);
        if (meta.id.empty() || meta.status == "TRASH" || !(meta == page.objects[i])) abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string_view text(reinterpret_cast<char const*>(data), size);
    for (size_t start = 0; start <= text.size();) {
        size_t end = std::min(text.find('\n', start), text.size());
        checkPageReader(text.substr(start, end - start));
        start = end + 1;
    }

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
