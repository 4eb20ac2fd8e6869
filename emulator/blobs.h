// The contents of files, one file per stored version in "<data>/blobs/". A new
// version is written to "blobs/tmp/" first and renamed into place before the
// database commit that points at it, so a reader never sees a partial blob.
// A pending blob's name starts with the writer's pid, so that a later process
// can tell the leftovers of a dead writer from a transfer still running.
#pragma once

#include <string>

namespace DriveEmulator {

class Blobs {
  public:
    // Uses "<dataFolder>/blobs", creating it and its "tmp" folder when missing
    // (Error(500) when that fails), and removes the pending blobs there whose
    // writer is no longer alive (unnamed ones once they are a day old).
    explicit Blobs(std::string const& dataFolder);

    // The path of the published blob `name`.
    std::string path(std::string const& name) const;
    std::string const& folder() const { return _folder; }
    // Removes a published blob that no object uses any more; a missing file is fine.
    void discard(std::string const& name) const;
    // Removes everything, published and temporary (the account is being reset).
    void wipe() const;

  private:
    friend class PendingBlob;
    std::string _folder;
};

// A blob being written. Owns its file until keep() hands it to the database:
// the destructor removes the temporary file, or the published one when the
// transaction that was to adopt it failed.
class PendingBlob {
  public:
    // Creates an empty temporary file open for reading and writing (Error(500) on failure).
    explicit PendingBlob(Blobs const& blobs);
    ~PendingBlob();
    PendingBlob(PendingBlob const&) = delete;
    PendingBlob& operator=(PendingBlob const&) = delete;

    int fd() const { return _fd; }
    // The name the blob is published under.
    std::string const& name() const { return _name; }
    // Closes the file, fsyncs it first when `durable`, and renames it into place.
    void publish(bool durable);
    // The database now refers to the blob: it is no longer removed here.
    void keep() { _owned = false; }

  private:
    Blobs const& _blobs;
    std::string _name;
    std::string _temp_path;
    int _fd = -1;
    bool _published = false;
    bool _owned = true;
};

// Makes SIGTERM, SIGINT and SIGHUP end the process at once, removing the
// pending blob being written, if any, on the way out.
void removePendingBlobOnTermination();

}  // namespace DriveEmulator
