// The engine's interface to a storage plug-in's transfer agent. The virtual
// slots are in the engine's order; a plug-in overrides what it offers and
// leaves the rest to the base implementations here.
#pragma once

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <list>
#include <map>
#include <string>

#include "backup/file_info.h"
#include "backup/repository.h"

namespace TAVO {
namespace Backup {

typedef std::string VersionId;

// A sink for the content of a file the engine fetches in pieces.
class FileOutputer {
public:
    virtual ~FileOutputer() {}
    // Takes the next `size` bytes; false aborts the transfer.
    virtual bool write(char const* data, size_t size) = 0;
};

class TransferAgent {
public:
    typedef boost::function<bool(long)> ProgressHook;
    typedef boost::function<bool()> CancelHook;
    typedef boost::function<bool(FileInfo const&, void*)> ListHook;

    explicit TransferAgent(Repository const& repository);
    virtual ~TransferAgent();                                   // slots 1, 2

    virtual bool isValid() const;                               // 3
    virtual bool setTransferOption(Task const& task);           // 4
    virtual void setTargetId(std::string const& targetId);      // 5
    virtual std::string getTargetId() const;                    // 6
    virtual void setVersionId(VersionId const& versionId);      // 7
    virtual VersionId getVersionId() const;                     // 8
    // Stores the cancel predicate; false when the hook cannot be installed
    // (never, in this engine).
    virtual bool setCancelHook(CancelHook hook);                // 9
    virtual bool sendFile(std::string const& local, std::string const& remote);  // 10
    virtual bool sendFile(std::string const& local, std::string const& remote,
                          ProgressHook progress);               // 11
    virtual bool sendFile(std::string const& local, std::string const& remote,
                          ProgressHook progress, bool flag);    // 12
    // Calls the full sendFile (slot 14).
    virtual bool sendFileSync(std::string const& local, std::string const& remote,
                              ProgressHook progress, bool flag, FileInfo& info);  // 13
    virtual bool sendFile(std::string const& local, std::string const& remote,
                          ProgressHook progress, bool flag, FileInfo& info);      // 14
    virtual bool recvFile(std::string const& remote, std::string const& local);  // 15
    virtual bool recvFile(std::string const& remote, std::string const& local,
                          ProgressHook progress);               // 16
    virtual bool recvFile(std::string const& remote, std::string const& local,
                          ProgressHook progress, FileInfo& info);  // 17
    // Fetches `remote` into a temporary file with recvFile and streams it to
    // `out` in 1 MiB pieces.
    virtual bool recvFile(std::string const& remote, boost::shared_ptr<FileOutputer> out);  // 18
    virtual bool isExist(std::string const& path);              // 19
    virtual bool isFileExist(std::string const& path);          // 20
    virtual bool stat(std::string const& path, FileInfo& info); // 21
    virtual bool removeFile(std::string const& path);           // 22
    virtual bool createDir(std::string const& path);            // 23
    virtual bool removeDirRecursive(std::string const& path);   // 24
    virtual bool listDir(std::string const& path, std::list<FileInfo>& list);  // 25
    virtual bool listDirRecursive(std::string const& path, ListHook hook, void* arg);  // 26
    // Sends a local folder tree with createDir and sendFile; `options` is unused.
    virtual bool sendDirRecursive(std::string const& local, std::string const& remote,
                                  ProgressHook progress,
                                  std::map<std::string, std::string> const& options);  // 27
    virtual bool sendDirRecursive(std::string const& local, std::string const& remote,
                                  ProgressHook progress,
                                  std::map<std::string, std::string> const& options,
                                  std::list<FileInfo>& sent);   // 28
    virtual bool getAccountInfo(AccountInfo& info);             // 29
    virtual bool checkCache();                                  // 30
    virtual bool flushCache();                                  // 31
    virtual bool listContainer(std::list<FileInfo>& list);      // 32
    virtual bool createContainer(std::string const& name);      // 33

    // Debugging: when on, operations trace themselves through debug(). The
    // switch starts from the environment variable TAVO_TA_DEBUG ("1" = on).
    static bool isDebug();
    static void setDebug(bool on);
    // printf-style debug line. Goes to the sink installed with setDebugSink,
    // else to syslog at LOG_DEBUG prefixed with "ta-debug: ".
    static void debug(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void setDebugSink(boost::function<void(std::string const&)> sink);

protected:
    Repository const& getRepository() const { return _repository; }
    // The engine's cancel predicate; empty until setCancelHook.
    CancelHook const& getCancelHook() const { return _cancel_hook; }
    // True when a cancel hook is set and reports cancellation.
    bool isCanceled() const { return _cancel_hook && _cancel_hook(); }

private:
    Repository _repository;
    std::string _target_id;
    VersionId _version_id;
    CancelHook _cancel_hook;
};

}  // namespace Backup
}  // namespace TAVO
