#include "request_log.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

namespace DriveEmulator {

void appendLog(Db& db, LogEntry const& entry) {
    static Json::StreamWriterBuilder const writer = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        return builder;
    }();
    db.query(
          "INSERT INTO log(time, pid, fn, args, success, code, message) VALUES(?, ?, ?, ?, ?, ?, "
          "?)")
        .bind(1, entry.time)
        .bind(2, std::int64_t(entry.pid))
        .bind(3, entry.fn)
        .bind(4, Json::writeString(writer, entry.args))
        .bind(5, std::int64_t(entry.success))
        .bind(6, std::int64_t(entry.errorCode))
        .bind(7, entry.message)
        .run();
    // Only the newest rows are kept, so that the data folder does not grow with
    // every request of a long life (a file size limit would stop the emulator).
    db.exec(
        "DELETE FROM log WHERE seq <= (SELECT MAX(seq) FROM log) - COALESCE((SELECT value FROM "
        "settings WHERE key = 'log_rows'), 20000)");
}

std::vector<LogEntry> readLog(Db& db) {
    std::vector<LogEntry> entries;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    auto q =
        db.query("SELECT seq, time, pid, fn, args, success, code, message FROM log ORDER BY seq");
    while (q.step()) {
        LogEntry entry;
        entry.seq = q.int64(0);
        entry.time = q.real(1);
        entry.pid = static_cast<int>(q.int64(2));
        entry.fn = q.text(3);
        std::string args = q.text(4);
        std::string errors;
        reader->parse(args.data(), args.data() + args.size(), &entry.args, &errors);
        entry.success = q.int64(5) != 0;
        entry.errorCode = static_cast<int>(q.int64(6));
        entry.message = q.text(7);
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::int64_t countLog(Db& db, std::string const& fn) {
    auto q = fn == "*" ? db.query("SELECT COUNT(*) FROM log")
                       : db.query("SELECT COUNT(*) FROM log WHERE fn = ?");
    if (fn != "*") q.bind(1, fn);
    q.step();
    return q.int64(0);
}

void clearLog(Db& db) { db.exec("DELETE FROM log"); }

}  // namespace DriveEmulator
