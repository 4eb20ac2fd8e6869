#include "faults.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>

namespace DriveEmulator {

namespace {

char const kColumns[] = "id, fn, kind, nth, remaining, code, text, number, fractions, seen, fired";

std::string fractionsText(std::vector<double> const& fractions) {
    Json::Value array(Json::arrayValue);
    for (double f : fractions) array.append(f);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, array);
}

std::vector<double> parseFractions(std::string const& text) {
    std::vector<double> fractions;
    Json::Value array;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (reader->parse(text.data(), text.data() + text.size(), &array, &errors) && array.isArray()) {
        for (auto const& f : array) fractions.push_back(f.asDouble());
    }
    return fractions;
}

Fault readFault(Query& q) {
    Fault fault;
    fault.id = q.int64(0);
    fault.fn = q.text(1);
    fault.kind = faultKindFromName(q.text(2));
    fault.nth = static_cast<int>(q.int64(3));
    fault.times = static_cast<int>(q.int64(4));
    fault.code = static_cast<int>(q.int64(5));
    fault.text = q.text(6);
    fault.number = q.int64(7);
    fault.fractions = parseFractions(q.text(8));
    fault.seen = q.int64(9);
    fault.fired = q.int64(10);
    return fault;
}

// Counts one matching event against each rule and keeps the ones that fire.
std::vector<Fault> fire(Db& db, std::string const& where, std::string const& fn) {
    std::vector<Fault> candidates;
    {
        auto q = db.query(std::string("SELECT ") + kColumns + " FROM faults WHERE " + where +
                          " ORDER BY id");
        if (!fn.empty()) q.bind(1, fn);
        while (q.step()) candidates.push_back(readFault(q));
    }
    std::vector<Fault> fired;
    for (auto& rule : candidates) {
        ++rule.seen;
        bool fires = rule.seen >= rule.nth && rule.times != 0;
        if (fires && rule.times > 0) --rule.times;
        if (fires) ++rule.fired;
        db.query("UPDATE faults SET seen = ?, remaining = ?, fired = ? WHERE id = ?")
            .bind(1, rule.seen)
            .bind(2, std::int64_t(rule.times))
            .bind(3, rule.fired)
            .bind(4, rule.id)
            .run();
        if (fires) fired.push_back(rule);
    }
    return fired;
}

}  // namespace

std::int64_t addFault(Db& db, Fault const& fault) {
    if (fault.fn.empty()) throw Error(400, "a fault needs a request name or \"*\"");
    if (fault.nth < 0) throw Error(400, "nth must be positive");
    if (fault.kind == FaultKind::Progress && fault.fractions.empty()) {
        throw Error(400, "a progress fault needs fractions");
    }
    db.query(
          "INSERT INTO faults(fn, kind, nth, remaining, code, text, number, fractions) "
          "VALUES(?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(1, fault.fn)
        .bind(2, faultKindName(fault.kind))
        .bind(3, std::int64_t(fault.nth))
        .bind(4, std::int64_t(fault.times))
        .bind(5, std::int64_t(fault.code))
        .bind(6, fault.text)
        .bind(7, fault.number)
        .bind(8, fractionsText(fault.fractions))
        .run();
    return db.lastInsertRowid();
}

std::vector<Fault> listFaults(Db& db) {
    std::vector<Fault> faults;
    auto q = db.query(std::string("SELECT ") + kColumns + " FROM faults ORDER BY id");
    while (q.step()) faults.push_back(readFault(q));
    return faults;
}

void clearFaults(Db& db) { db.exec("DELETE FROM faults"); }

FiredFaults fireRequestFaults(Db& db, std::string const& fn) {
    FiredFaults result;
    for (auto& rule : fire(db, "kind != 'refuse_handshake' AND (fn = ?1 OR fn = '*')", fn)) {
        switch (rule.kind) {
            case FaultKind::Fail:
            case FaultKind::Exit:
            case FaultKind::ExitAfterApply:
            case FaultKind::CutAnswer:
            case FaultKind::FailAfterApply:
            case FaultKind::Garbage:
                if (!result.stop) result.stop = rule;
                break;
            case FaultKind::Delay:
                result.delayMs += rule.number;
                break;
            case FaultKind::ShortDownload:
                result.shortDownload = true;
                break;
            case FaultKind::LongDownload:
                result.longDownload = true;
                break;
            case FaultKind::Progress:
                if (!result.progress) result.progress = rule.fractions;
                break;
            case FaultKind::ExitAfterProgress:
                if (!result.exitAfterProgress) result.exitAfterProgress = rule.number;
                break;
            case FaultKind::ListingLag:
                if (rule.number > result.listingLag) result.listingLag = rule.number;
                break;
            case FaultKind::RepeatListing:
                result.repeatListing = true;
                break;
            case FaultKind::FormerParent:
                result.formerParent.push_back(rule.text);
                break;
            case FaultKind::RefuseHandshake:
                break;
        }
    }
    return result;
}

std::optional<Fault> fireHandshakeFaults(Db& db) {
    auto fired = fire(db, "kind = 'refuse_handshake'", "");
    if (fired.empty()) return std::nullopt;
    return fired.front();
}

}  // namespace DriveEmulator
