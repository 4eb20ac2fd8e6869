#include "server.h"

#include <json/reader.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "request_log.h"

namespace DriveEmulator {

namespace {

// A request line longer than this is refused unread rather than buffered:
// nothing the plug-in sends comes near it.
constexpr size_t kMaxLine = 16 << 20;
constexpr size_t kLoggedLinePrefix = 1000;

struct Handler {
    char const* fn;
    int kind;  // Server::Kind, as int to keep the table free of the private type
    bool empty;
    std::initializer_list<char const*> members;
};

}  // namespace

namespace {

Handler const kHandlers[] = {
    {"getObjectMeta", 0, false, {"id"}},
    {"listObjects", 0, false, {"queryFilter"}},
    {"createFolder", 0, false, {"name", "parentId"}},
    {"deleteObject", 0, false, {"id"}},
    {"getAccountInfo", 0, false, {}},
    {"downloadFile", 1, false, {"id", "outputPath"}},
    {"uploadFile", 2, false, {"name", "parentId", "inputPath"}},
    {"uploadEmptyFile", 2, true, {"name", "parentId", "inputPath"}},
    {"updateFile", 3, false, {"id", "inputPath"}},
    {"updateEmptyFile", 3, true, {"id", "inputPath"}},
};

std::unique_ptr<Json::CharReader> makeReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["rejectDupKeys"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

double wallClock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Server::Server(Store& store, int in, int out) : _store(store), _in(in), _out(out) {}

int Server::run() {
    std::string pending;
    size_t scanned = 0;
    bool skipping = false;  // inside an over-long line, dropping bytes up to its end
    std::vector<char> chunk(1 << 16);
    while (!_reader_gone) {
        ssize_t n = ::read(_in, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(chunk.data(), static_cast<size_t>(n));
        size_t start = 0;
        for (;;) {
            size_t end = pending.find('\n', scanned);
            if (end == std::string::npos) break;
            std::string line = pending.substr(start, end - start);
            start = scanned = end + 1;
            if (skipping) {
                skipping = false;
                continue;
            }
            serveLine(line);
            if (_reader_gone) return 0;
        }
        pending.erase(0, start);
        scanned = pending.size();
        if (pending.size() > kMaxLine) {
            if (!skipping) {
                Request request;
                request.args["line"] = pending.substr(0, kLoggedLinePrefix);
                refuse(request, "Request too long");
            }
            skipping = true;
            pending.clear();
            scanned = 0;
        }
    }
    // A last request without its line feed is still served.
    if (!pending.empty() && !skipping && !_reader_gone) serveLine(pending);
    return 0;
}

void Server::serveLine(std::string const& text) {
    static std::unique_ptr<Json::CharReader> const reader = makeReader();
    std::string line = text;
    if (!line.empty() && line.back() == '\r') line.pop_back();

    Request request;
    std::string errors;
    if (!reader->parse(line.data(), line.data() + line.size(), &request.body, &errors) ||
        !request.body.isObject()) {
        request.args = Json::Value(Json::objectValue);
        request.args["line"] = line.substr(0, kLoggedLinePrefix);
        refuse(request, "Malformed request: not a JSON object");
        return;
    }
    request.args = request.body;
    request.args.removeMember("fn");
    Json::Value const& fn = request.body["fn"];
    if (!fn.isString()) {
        refuse(request, fn.isNull() ? "Missing member 'fn'" : "Member 'fn' must be a string");
        return;
    }
    request.fn = fn.asString();
    Handler const* handler = nullptr;
    for (auto const& h : kHandlers) {
        if (request.fn == h.fn) handler = &h;
    }
    if (!handler) {
        refuse(request, "Unknown function: " + request.fn);
        return;
    }
    request.kind = static_cast<Kind>(handler->kind);
    request.empty = handler->empty;
    for (char const* member : handler->members) {
        Json::Value const& value = request.body[member];
        if (!value.isString()) {
            refuse(request, std::string(value.isNull() ? "Missing member '" : "Member '") + member +
                                (value.isNull() ? "'" : "' must be a string"));
            return;
        }
    }
    if (request.body.isMember("pageToken") && !request.body["pageToken"].isString()) {
        refuse(request, "Member 'pageToken' must be a string");
        return;
    }
    int code = 0;
    std::string message;
    try {
        serve(request);
        return;
    } catch (Error const& e) {
        // The model refused (or the data folder failed): the request is
        // logged with its outcome and answered with the service's code.
        code = e.code();
        message = e.what();
    } catch (std::exception const& e) {
        code = 500;
        message = std::string("Internal Error (") + e.what() + ")";
    }
    try {
        logOutcome(request, false, code, message);
    } catch (std::exception const&) {
        // A broken database cannot log; the answer still goes out.
    }
    send(failureResponse(code, message));
}

void Server::refuse(Request const& request, std::string const& message) {
    try {
        logOutcome(request, false, 400, message);
    } catch (Error const&) {
    }
    send(failureResponse(400, message));
}

void Server::serve(Request const& request) {
    FiredFaults fired;
    {
        WriteTransaction txn(_store.db());
        fired = fireRequestFaults(_store.db(), request.fn);
        if (fired.stop && fired.stop->kind != FaultKind::ExitAfterApply &&
            fired.stop->kind != FaultKind::CutAnswer &&
            fired.stop->kind != FaultKind::FailAfterApply) {
            Fault const& fault = *fired.stop;
            if (fault.kind == FaultKind::Fail) {
                std::string message =
                    fault.text.empty() ? defaultFailureMessage(fault.code) : fault.text;
                logOutcome(request, false, fault.code, message);
                txn.commit();
                send(failureResponse(fault.code, message));
                return;
            }
            if (fault.kind == FaultKind::Garbage) {
                logOutcome(request, false, 0, "wrote a line that is not JSON (fault)");
                txn.commit();
                sendLine(fault.text);
                return;
            }
            logOutcome(request, false, 0, "exited before answering (fault)");
            txn.commit();
            ::_exit(kFaultExitStatus);
        }
        if (request.kind == Kind::Meta && fired.delayMs == 0) {
            // The common case in one transaction: the fault counters, the
            // change and its log entry commit together. A refusal undoes only
            // the change.
            serveMeta(request, fired, txn);
            return;
        }
        txn.commit();
    }
    if (fired.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(fired.delayMs));

    switch (request.kind) {
        case Kind::Meta: {
            WriteTransaction txn(_store.db());
            serveMeta(request, fired, txn);
            break;
        }
        case Kind::Download:
            download(request, fired);
            break;
        case Kind::Upload:
        case Kind::Update:
            upload(request, fired);
            break;
    }
}

void Server::serveMeta(Request const& request, FiredFaults const& fired, WriteTransaction& txn) {
    Json::Value response;
    std::string rendered;
    bool ok = true;
    _discard.clear();
    {
        Savepoint change(_store.db());
        try {
            response = meta(request, fired, rendered);
            change.release();
        } catch (Error const& e) {
            ok = false;
            response = failureResponse(e.code(), e.what());
            rendered.clear();
            _discard.clear();
        }
    }
    if (ok) {
        logOutcome(request, true, 0, appliedNote(fired));
    } else {
        logOutcome(request, false, response["error_code"].asInt(),
                   response["error_message"].asString());
    }
    txn.commit();
    // Only now is nothing left that points at the old contents.
    for (auto const& blob : _discard) _store.blobs().discard(blob);
    _discard.clear();
    // A refused request was not applied: only the exits still withhold its answer.
    bool const refusedAsItIs = !ok && fired.stop && fired.stop->kind == FaultKind::FailAfterApply;
    if (refusedAsItIs) {
        send(response);
    } else if (!rendered.empty()) {
        sendLine(std::move(rendered));  // rendered only when no fault is at work
    } else {
        answerApplied(fired, response);
    }
}

Json::Value Server::meta(Request const& request, FiredFaults const& fired, std::string& rendered) {
    if (request.fn == "getObjectMeta") {
        return objectResponse(_store.get(request.get("id")).object);
    }
    if (request.fn == "listObjects") {
        ListPage page = _store.list(request.get("queryFilter"), request.get("pageToken"),
                                    _store.settings(), fired.repeatListing);
        Json::Value response(Json::objectValue);
        response["success"] = true;
        // A fault that adds objects or alters the answer needs the value.
        if (!fired.stop && fired.formerParent.empty() &&
            renderListing(page.objects, page.nextPageToken, rendered)) {
            return response;
        }
        rendered.clear();
        Json::Value& objects = response["objects"] = Json::Value(Json::arrayValue);
        for (auto const& object : page.objects) objects.append(objectRecord(object));
        addFormerChildren(request.get("queryFilter"), fired, objects);
        if (!page.nextPageToken.empty()) response["nextPageToken"] = page.nextPageToken;
        return response;
    }
    if (request.fn == "createFolder") {
        return objectResponse(
            _store.createFolder(request.get("parentId"), request.get("name"), fired.listingLag));
    }
    if (request.fn == "deleteObject") {
        _discard = _store.remove(request.get("id"));
        Json::Value response(Json::objectValue);
        response["success"] = true;
        return response;
    }
    return accountResponse(_store.account());  // getAccountInfo
}

Json::Value Server::commit(Request const& request, std::function<Json::Value()> const& apply,
                           std::string const& note) {
    _discard.clear();
    Json::Value response;
    {
        WriteTransaction txn(_store.db());
        try {
            response = apply();
        } catch (...) {
            _discard.clear();
            throw;
        }
        logOutcome(request, true, 0, note);
        txn.commit();
    }
    // Only now is nothing left that points at the old contents.
    for (auto const& blob : _discard) _store.blobs().discard(blob);
    _discard.clear();
    return response;
}

void Server::logOutcome(Request const& request, bool success, int code,
                        std::string const& message) {
    LogEntry entry;
    entry.fn = request.fn;
    entry.args = request.args;
    entry.success = success;
    entry.errorCode = success ? 0 : code;
    entry.message = message;
    entry.time = wallClock();
    static int const pid = static_cast<int>(::getpid());
    entry.pid = pid;
    if (sqlite3_get_autocommit(_store.db().handle())) {
        WriteTransaction txn(_store.db());
        appendLog(_store.db(), entry);
        txn.commit();
    } else {
        appendLog(_store.db(), entry);
    }
}

void Server::exitNow(Request const& request, std::string const& why) {
    try {
        logOutcome(request, false, 0, why);
    } catch (Error const&) {
    }
    ::_exit(kFaultExitStatus);
}

void Server::addFormerChildren(std::string const& query, FiredFaults const& fired,
                               Json::Value& objects) {
    for (auto const& rule : fired.formerParent) {
        size_t space = rule.find(' ');
        std::string const id = rule.substr(0, space);
        std::string const parent = space == std::string::npos ? "" : rule.substr(space + 1);
        if (query.find("'" + parent + "' in parents") == std::string::npos) continue;
        std::optional<StoredObject> found = _store.find(id);
        if (!found) continue;
        size_t named = query.find("name = '");
        if (named != std::string::npos && query.compare(named + 8, found->object.name.size() + 1,
                                                        found->object.name + "'") != 0) {
            continue;
        }
        objects.append(objectRecord(found->object));
    }
}

char const* Server::appliedNote(FiredFaults const& fired) {
    if (!fired.stop) return "";
    return fired.stop->kind == FaultKind::FailAfterApply
               ? "applied, then answered a failure (fault)"
               : "exited after applying (fault)";
}

void Server::answerApplied(FiredFaults const& fired, Json::Value const& answer) {
    if (!fired.stop) {
        send(answer);
        return;
    }
    Fault const& fault = *fired.stop;
    if (fault.kind == FaultKind::FailAfterApply) {
        send(failureResponse(fault.code,
                             fault.text.empty() ? defaultFailureMessage(fault.code) : fault.text));
        return;
    }
    if (fault.kind == FaultKind::CutAnswer) {
        std::string line = _writer.render(answer);
        line.resize(line.size() / 2);
        for (size_t done = 0; done < line.size();) {
            ssize_t n = ::write(_out, line.data() + done, line.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
    }
    ::_exit(kFaultExitStatus);
}

bool Server::clientGone() {
    if (_reader_gone) return true;
    // A pipe's write end reports POLLERR once nobody can read it; asking does
    // not depend on our input, which a client may close early on purpose.
    pollfd out{_out, 0, 0};
    if (::poll(&out, 1, 0) > 0 && (out.revents & (POLLERR | POLLHUP)) != 0) _reader_gone = true;
    return _reader_gone;
}

bool Server::send(Json::Value const& message) { return sendLine(_writer.render(message)); }

bool Server::sendLine(std::string line) {
    line += '\n';
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = ::write(_out, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // The plug-in closed its end: nobody is left to serve.
            _reader_gone = true;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace DriveEmulator
