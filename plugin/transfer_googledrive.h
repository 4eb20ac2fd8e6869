// The transfer agent of the Google Drive plug-in: the engine stores, fetches,
// lists, stats and deletes backup files through it. It resolves the engine's
// slash paths to Drive ids folder by folder, remembering what it learns in the
// node cache, and asks the drive agent process for everything else.
#pragma once

#include <json/value.h>

#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "backup/transfer_agent.h"
#include "file_meta_store.h"
#include "googledrive_client.h"
#include "googledrive_meta.h"
#include "googledrive_meta_page.h"
#include "transfer_googledrive_confirmed.h"
#include "transfer_googledrive_whole.h"

namespace TAVO {
namespace Backup {

class TransferAgentGoogleDrive : public TransferAgent {
  public:
    // Reads no option, starts no process and touches no file.
    explicit TransferAgentGoogleDrive(Repository const& repository);
    // Does not save the node cache: the engine calls flushCache() for that.
    ~TransferAgentGoogleDrive() override;

    // True when the container and the refresh token are configured; false
    // with error 3 otherwise. Contacts nothing.
    bool isValid() const override;
    // Records the task's target id, which names the node cache folder. Always true.
    bool setTransferOption(Task const& task) override;
    // Installs `hook` in the base (polled between transfer messages) and in
    // the channel. False with error 1 when the base refuses it.
    bool setCancelHook(CancelHook hook) override;

    // Stores the local regular file `local` at the relative path `remote`:
    // overwrites an existing file in place (keeping its id) or uploads a new
    // one into the existing parent folder. Fills `info` with the stored
    // object's size, mtime and MD5. Errors: 3 bad argument, 1004 not a
    // regular local file, 4 canceled, 2003 parent missing, 2004 a folder has
    // that name, or the transfer's code. `flag` is ignored.
    bool sendFile(std::string const& local, std::string const& remote) override;
    bool sendFile(std::string const& local, std::string const& remote,
                  ProgressHook progress) override;
    bool sendFile(std::string const& local, std::string const& remote, ProgressHook progress,
                  bool flag) override;
    bool sendFile(std::string const& local, std::string const& remote, ProgressHook progress,
                  bool flag, FileInfo& info) override;

    // Fetches the file at the relative path `remote` to `local` through a
    // temporary file beside it, checked for the reported size before it is
    // renamed into place: `local` is either untouched or complete. Errors: 3,
    // 1004 destination not a regular file, 2003 missing, 2004 a folder, 4
    // canceled, 1 wrong size, a local I/O code, or the transfer's code.
    bool recvFile(std::string const& remote, std::string const& local) override;
    bool recvFile(std::string const& remote, std::string const& local,
                  ProgressHook progress) override;
    bool recvFile(std::string const& remote, std::string const& local, ProgressHook progress,
                  FileInfo& info) override;

    // Status queries on a relative path; false with 2003 when nothing is
    // there. isFileExist is false with 2004 for a folder.
    bool isExist(std::string const& path) override;
    bool isFileExist(std::string const& path) override;
    bool stat(std::string const& path, FileInfo& info) override;

    // Folder changes; creating what exists as a folder and removing what is
    // missing succeed (the latter leaving 2003 in the error state).
    bool removeFile(std::string const& path) override;
    bool createDir(std::string const& path) override;
    bool removeDirRecursive(std::string const& path) override;
    bool createContainer(std::string const& name) override;

    // Listings: the children of a folder of the target, every regular file
    // below one (paths relative to it), and the top of the Drive.
    bool listDir(std::string const& path, std::list<FileInfo>& list) override;
    bool listDirRecursive(std::string const& path, ListHook hook, void* arg) override;
    bool listContainer(std::list<FileInfo>& list) override;

    // The account's e-mail, user name and quota.
    bool getAccountInfo(AccountInfo& info) override;

    // Verifies the cached backup layout against the service and drops the
    // whole cache on the first mismatch. Always true.
    bool checkCache() override;
    // Writes the node cache file when the cache changed. True when there is
    // nothing to write or the write succeeded.
    bool flushCache() override;

    // The container folder's name from the options; empty when unset.
    std::string getContainer() const;
    // "/" + container + "/" + target id + "/" + path, trailing slashes removed
    // when `trimTrailingSlash` (a lone "/" stays).
    std::string getRemotePath(std::string const& path, bool trimTrailingSlash) const;

    // Makes sure a drive agent is attached, starting one when needed. False
    // with 3 (no refresh token), 2107 (token refused) or 1 (anything else).
    bool checkAndCreateClient();

    // Node cache attachment: loads "ta_cache.node" from the target's cache
    // folder on first use (once per agent; always true).
    bool checkAndInitCache();
    bool enableNodeCache(std::string const& path);
    void freezeNodeCache(bool freeze);
    bool dropNodeCache();

    // Remote object requests (one drive agent request each, listObjects one
    // per page), keeping the node cache in step with what the service says.
    bool getObjectMeta(std::string const& id, GoogleDrive::FileMeta& meta);
    bool listObjects(std::string const& pid, std::string const& name,
                     std::list<GoogleDrive::FileMeta>& list);
    bool createFolder(std::string const& name, std::string const& pid, GoogleDrive::FileMeta& meta);
    bool removeObject(std::string const& id);

    // Path resolution, node cache first; with `cacheOnly` a cache miss fails
    // with 1 and nothing is sent. Two objects of one name fail with 1.
    bool findFileMetaByPidName(bool cacheOnly, std::string const& pid, std::string const& name,
                               GoogleDrive::FileMeta& meta);
    bool findFileMetaByPath(bool cacheOnly, std::string const& path, GoogleDrive::FileMeta& meta);
    bool findNodeIdByPath(bool cacheOnly, std::string const& path, std::string& id);
    // As findFileMetaByPath, then fresh metadata from the service when the
    // walk was answered by the cache.
    bool statMeta(std::string const& path, GoogleDrive::FileMeta& meta);
    // As statMeta, with the whole placement confirmed (findConfirmedMeta);
    // when it finds nothing under a folder the node cache placed that is no
    // longer there, once more from the service.
    bool statMetaConfirmingAbsence(std::string const& path, GoogleDrive::FileMeta& meta);
    bool statInfo(std::string const& rpath, FileInfo& info);

    // Transfers with progress: the request is re-sent after a retryable
    // failed read, up to nine times; progress reports only growth.
    bool sendRequestAndUpdateProgress(Json::Value const& request, long& fileSize,
                                      ProgressHook progress);
    bool downloadFile(std::string const& id, std::string const& outputPath,
                      std::string const& requestRange, long fileSize, ProgressHook progress);
    bool uploadFile(std::string const& name, std::string const& parentId,
                    std::string const& localPath, long fileSize, ProgressHook progress,
                    GoogleDrive::FileMeta& meta);
    bool overwriteFile(std::string const& id, std::string const& localPath, long fileSize,
                       ProgressHook progress, GoogleDrive::FileMeta& meta);

    // Listing helpers.
    bool listChildrenMeta(GoogleDrive::FileMeta const& parent,
                          std::list<GoogleDrive::FileMeta>& list);
    bool listChildrenInfo(GoogleDrive::FileMeta const& parent, std::list<FileInfo>& list);
    bool listChildrenRecursive(std::string const& rpath, GoogleDrive::FileMeta const& parent,
                               ListHook callback, void* arg);
    // listChildrenRecursive once `children` of `parent` are listed.
    bool visitChildren(std::string const& rpath, GoogleDrive::FileMeta const& parent,
                       std::list<GoogleDrive::FileMeta> const& children, ListHook callback,
                       void* arg);

    // Is the cached placement of one node still true on the service?
    bool verifyNode(std::string const& remotePath, bool mustBeCached);

  private:
    // What a check of one cached node found.
    enum class NodeCheck { Holds, Mismatch, Unknown };
    // verifyNode's answer, telling a definite mismatch (not cached though it
    // must be, gone, trashed, renamed, moved) from a check that could not be
    // made (the service or the drive agent failed).
    NodeCheck checkNode(std::string const& remotePath, bool mustBeCached);
    // Reads the listing page in _response (a success the dedicated page
    // reader did not take) into `page`; false with the error set, logged,
    // when an object has no id or is in the trash.
    bool readListingAnswer(GoogleDrive::ListingPage& page);
    // Enters a listing of folder `pid` into the node cache, leaving out of the
    // index every name (byte for byte) that the listing holds more than once
    // and dropping what the index held for it. Below a confirmed folder, the
    // folders listed under a name of their own count as confirmed. A `whole`
    // listing (no name filter) without such names makes the folder known whole.
    void learnListing(std::string const& pid, std::list<GoogleDrive::FileMeta> const& list,
                      bool whole);
    enum class Settled { Kept, Refused, Stopped };
    // Several objects of exactly one name in folder `pid`. When they are
    // provably copies of one another (regular files of one size and one
    // non-empty MD5, all but at most one placed in `pid` alone), deletes all
    // but one (the one placed elsewhere too, else the oldest), fills `kept`
    // with it and leaves the error state as it was: Kept. Refused when they
    // may differ (nothing deleted); Stopped with 4 when the engine canceled.
    Settled settleDuplicates(std::string const& pid, std::string const& name,
                             std::list<GoogleDrive::FileMeta> const& found,
                             GoogleDrive::FileMeta& kept);
    // Remembers a creation of `name` in `pid` whose outcome is unknown (the
    // channel closed before its answer came, or its last answer was a code
    // worth retrying), so that the next lookup of that name does not trust a
    // lagging name listing.
    void noteLostCreation(std::string const& pid, std::string const& name);
    // What a confirmation of cached placements found.
    enum class Placement { Holds, Stale, Unknown };
    // Is object `id` still named `name` below `parentId` (one "getObjectMeta")?
    // Stale when it is gone, trashed, renamed or moved: its record and what
    // the cache held below it are dropped. Unknown with the error set when
    // the service could not say.
    // `fresh` is what the service said of it.
    Placement confirmStep(std::string const& remotePath, std::string const& name,
                          std::string const& id, std::string const& parentId,
                          GoogleDrive::FileMeta& fresh);
    // Confirms, from the top, each step of a walk of `parts` (steps[0] the
    // root) that the node cache answered: its name and parent, by one
    // "getObjectMeta". A folder confirmed lately is not asked again, except
    // the last step when `lastToo`. A step asked for is replaced by what the
    // service said. The first step that is not Holds ends the confirmation
    // and gives the answer.
    Placement confirmSteps(std::string const& remotePath, std::vector<std::string> const& parts,
                           std::vector<GoogleDrive::FileMeta>& steps, bool lastToo);
    // For an operation on `remotePath` that found nothing there: confirms the
    // deepest placement the node cache holds on the way (and the ones above
    // it while they are found gone), by one "getObjectMeta" each. True when
    // one no longer held (and was dropped), so that one more try may find
    // the path on the service; false with the error state as it was when it
    // holds, or when a confirmation failed for a passing reason; false with
    // the error of a confirmation that failed otherwise.
    bool droppedStalePlacement(std::string const& remotePath);
    // The object at `remotePath`, with every step of the walk up to the root
    // confirmed (the last one always when `askLast`): what the node cache
    // placed but was moved or renamed outside the plug-in is forgotten and
    // walked again, so that a delete, an overwrite or a new object acts on
    // what the path names now.
    bool findConfirmedMeta(std::string const& remotePath, GoogleDrive::FileMeta& meta,
                           bool askLast = true);
    // True when the node cache holds every child of folder `pid` (see
    // WholeFolders), lacks `name` there, and no creation of `name` there is
    // in doubt: a create of `name` in `pid` then needs no lookup first.
    // Asks nothing; only creates use it (a walk to an object another agent
    // made meanwhile must still find it).
    bool knownAbsent(std::string const& pid, std::string const& name);
    // The service says `id` is gone (or trashed): the folders the node cache
    // placed it in may hold what the cache does not know (a wrong or lagging
    // answer, another client's object), so names there are asked for again.
    void forgetWholeAround(std::string const& id);
    // Drops `id` and what the node cache holds below it. The folders below
    // were whole only with the records dropped: unless `id` is known to be a
    // file, no folder counts as whole any more.
    void dropCachedTree(std::string const& id);
    // The walk of findFileMetaByPath; on success also gives the path's
    // components (the first one empty, for the root) and the step taken at each.
    bool walkPath(bool cacheOnly, std::string const& path, GoogleDrive::FileMeta& meta,
                  std::vector<std::string>* parts, std::vector<GoogleDrive::FileMeta>* steps);
    // sendFile once its checks are done: overwrites the file at `remotePath`
    // or uploads a new one into its parent folder, `meta` the stored object.
    bool storeFileAt(std::string const& local, std::string const& remote,
                     std::string const& remotePath, long size, ProgressHook progress,
                     GoogleDrive::FileMeta& meta);
    // createDir's folder made without a lookup where knownAbsent says the
    // name is free: `tried` when it was (the result is the creation's),
    // unless the creation found the parent gone (2003).
    bool createdUnasked(std::string const& remotePath, bool& tried);
    // createDir once its argument checks and the look at the path are done.
    bool createMissingDir(std::string const& remotePath);
    // True, with error 2003 and the trust in its folders forgotten, when the
    // object a create or an update answered with is in the trash: a folder
    // above it was trashed meanwhile, and the path is to be resolved again.
    bool landedInTrash(GoogleDrive::FileMeta const& meta);
    // Reads the Drive object record a successful response carries; false
    // with error 1 (and the response logged) when it cannot be read.
    bool readResponseRecord(GoogleDrive::FileMeta& meta);
    // What happens after a create was answered in a way that leaves its
    // outcome unknown (a code worth retrying): send it again (the request
    // possibly changed), take what the service already holds, or give up
    // with that answer.
    enum class Resend { Again, Taken, GiveUp };
    using BeforeResend = std::function<Resend(Json::Value& request)>;
    // The objects named exactly `name` in folder `pid`, from a listing of the
    // whole folder, which, unlike a name listing, does not lag behind a
    // create. False with the error set when the listing failed.
    bool listNamedInWhole(std::string const& pid, std::string const& name,
                          std::list<GoogleDrive::FileMeta>& named);
    // Before a folder create is sent again: the one folder of that name is
    // taken into `meta`; nothing of that name sends it again; anything else
    // (a file, several objects) gives up.
    Resend lookBeforeFolderResend(std::string const& pid, std::string const& name,
                                  GoogleDrive::FileMeta& meta);
    // Before an upload of `localPath` is sent again: a file of that name of
    // the same size and MD5 is taken into `meta`; another one file of that
    // name is overwritten instead (`request` becomes its update).
    Resend lookBeforeUploadResend(Json::Value& request, long fileSize, GoogleDrive::FileMeta& meta);
    // sendRequestAndUpdateProgress, asking `beforeResend` (when set) before a
    // request goes out again; `taken` is true when it took an object.
    bool transferWithResends(Json::Value request, long& fileSize, ProgressHook progress,
                             BeforeResend const& beforeResend, bool& taken);
    // What uploadFile and overwriteFile share once the request is built: a
    // drive agent, the node cache, the transfer, and the stored object's
    // record (filled by `beforeResend` when it takes an object).
    bool storeContent(Json::Value const& request, long fileSize, ProgressHook progress,
                      GoogleDrive::FileMeta& meta, BeforeResend const& beforeResend = {});
    // removeFile and removeDirRecursive after their argument checks: missing is
    // success, an object of the other kind is refused.
    bool removeExisting(std::string const& remotePath, bool wantDir);
    // After a listing of the relative `path` was tried (`listed`, giving an
    // `empty` list or failing): true when the folder may have been replaced
    // and its stale placement was dropped, so the listing is worth one more try.
    bool placedFolderLooksGone(bool listed, bool empty, GoogleDrive::FileMeta const& folder,
                               std::string const& path);
    // The folder a listing starts from, logged on failure.
    bool resolveListedFolder(std::string const& path, GoogleDrive::FileMeta& folder);

    GoogleDriveClient _client;
    Json::Value _response;
    bool _is_cache_inited;
    bool _update_node_cache;
    bool _dump_node_cache;
    std::string _cache_path;
    std::string _target_id;
    GoogleDriveTA::FileMetaStore _node_cache;
    // (parent id, name) of creations that may have been applied unseen.
    std::set<std::pair<std::string, std::string>> _creations_in_doubt;
    // Folders whose placement the service confirmed lately (listed, made or
    // asked for): not asked again before a delete or an overwrite.
    ConfirmedFolders _confirmed_folders;
    // Folders made by this agent or listed whole lately: a name the node
    // cache lacks there is absent, and is not looked up.
    WholeFolders _whole_folders;
};

// Reads the access token (empty when missing) and the refresh token from the
// repository's options. True exactly when the refresh token option is present.
bool getRemoteConnect(Repository const& repository, std::string& accessToken,
                      std::string& refreshToken);

}  // namespace Backup
}  // namespace TAVO

extern "C" {
// The plug-in's entry points, looked up by the engine with dlsym.
__attribute__((visibility("default"))) TAVO::Backup::TransferAgent* getTransferAgent(
    TAVO::Backup::Repository const& repository);
__attribute__((visibility("default"))) void* getTargetManager();
__attribute__((visibility("default"))) void* getVersionManager();
}
