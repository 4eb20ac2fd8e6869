// The drive agent's side of the pipe: reads one JSON request per line, serves
// it against the Store, and writes one JSON line per answer (several for a
// transfer: progress messages, then the final response). Every request is
// logged in the data folder and checked against the stored fault rules.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "faults.h"
#include "store.h"
#include "wire_format.h"

namespace DriveEmulator {

class Server {
  public:
    // Serves on the descriptors `in` and `out` (normally 0 and 1).
    Server(Store& store, int in, int out);

    // Serves until end of input or until the reader of `out` goes away;
    // returns the exit status (0). Fault rules may end the process sooner.
    int run();

    // Exit status of a process ended by an exit fault.
    static constexpr int kFaultExitStatus = 3;

  private:
    enum class Kind { Meta, Download, Upload, Update };
    struct Request {
        std::string fn;
        Json::Value body;  // the request object
        Json::Value args;  // what the log keeps: the request without "fn"
        Kind kind = Kind::Meta;
        bool empty = false;  // uploadEmptyFile, updateEmptyFile
        std::string get(char const* member) const { return body[member].asString(); }
    };

    void serveLine(std::string const& line);
    void serve(Request const& request);
    // Answers a request that never reached the model (bad line, unknown fn,
    // missing members): logged, no faults, 400.
    void refuse(Request const& request, std::string const& message);

    // Serves a metadata request inside `txn`, logs it, commits and answers.
    void serveMeta(Request const& request, FiredFaults const& fired, WriteTransaction& txn);
    // The answer to a metadata request; a listing's may come as `rendered`
    // text instead (the value then only says it succeeded).
    Json::Value meta(Request const& request, FiredFaults const& fired, std::string& rendered);
    void download(Request const& request, FiredFaults const& fired);
    void upload(Request const& request, FiredFaults const& fired);

    // Runs `apply` and logs its success in one write transaction, then
    // discards the blobs `apply` retired. A thrown Error rolls `apply` back
    // and propagates (serveLine logs and answers it).
    Json::Value commit(Request const& request, std::function<Json::Value()> const& apply,
                       std::string const& note = "");
    void logOutcome(Request const& request, bool success, int code, std::string const& message);
    // Logs and ends the process without an answer.
    [[noreturn]] void exitNow(Request const& request, std::string const& why);
    // Answers an applied request: with `answer`, or as a fault that fired
    // asks: a failure answer in its place, or the process ends after writing
    // nothing or the first half of `answer` without its line feed.
    void answerApplied(FiredFaults const& fired, Json::Value const& answer);
    // Appends to a listing's `objects` the objects that FormerParent rules
    // show under a folder `query` lists, though they have left it.
    void addFormerChildren(std::string const& query, FiredFaults const& fired,
                           Json::Value& objects);
    // The log note of an applied request under the faults that fired.
    static char const* appliedNote(FiredFaults const& fired);

    // True once the reader of our answers has gone away (a failed write, or
    // the pipe reporting that its read end is closed): a transfer then stops.
    bool clientGone();
    bool send(Json::Value const& message);
    bool sendLine(std::string line);

    Store& _store;
    std::vector<std::string> _discard;  // blobs to remove once the running commit succeeds
    int _in;
    int _out;
    bool _reader_gone = false;
    LineWriter _writer;
};

}  // namespace DriveEmulator
