// Fault rules, each kind seen through the pipe as the plug-in would see it.
#include <gtest/gtest.h>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class Faults : public AccountTest {
  protected:
    static Json::Value meta() { return req({{"fn", "getObjectMeta"}, {"id", "root"}}); }
    static Json::Value mkdir(std::string const& name) {
        return req({{"fn", "createFolder"}, {"name", name}, {"parentId", "root"}});
    }
    Json::Value uploadOf(std::string const& name, std::string const& content) {
        writeFile(data + "/in", content);
        return upload("root", data + "/in", name);
    }
    Json::Value download(std::string const& id) {
        return req({{"fn", "downloadFile"}, {"id", id}, {"outputPath", data + "/out"}});
    }
};

}  // namespace

TEST_F(Faults, TriggersCountMatchingRequestsOnly) {
    auto emulator = start();
    auto outcomes = [&](Fault const& rule) {
        drive->addFault(rule);
        std::string result;
        for (int i = 0; i < 4; ++i) {
            result += emulator->call(meta())["success"].asBool() ? "+" : "-";
            // Requests of another name never count against the rule.
            EXPECT_TRUE(emulator->call(mkdir("d"))["success"].asBool());
        }
        drive->clearFaults();
        return result;
    };
    Fault const rule = Fault::fail("getObjectMeta", 503);
    EXPECT_EQ("-+++", outcomes(rule));
    EXPECT_EQ("++-+", outcomes(Fault(rule).onNth(3)));
    EXPECT_EQ("--++", outcomes(Fault(rule).forNext(2)));
    EXPECT_EQ("----", outcomes(Fault(rule).always()));
    EXPECT_EQ("+---", outcomes(Fault(rule).onNth(2).always()));

    // "*" watches every request; a failed creation creates nothing; of two
    // rules that fire together the first one decides.
    drive->addFault(Fault::fail("*", -4));
    drive->addFault(Fault::fail("createFolder", 503, "Backend Error").forNext(2));
    Json::Value failed = emulator->call(mkdir("never"));
    EXPECT_EQ(-4, failed["error_code"].asInt());
    EXPECT_EQ("the service did not answer in time", failed["error_message"].asString());
    EXPECT_TRUE(drive->lookup("root", "never").empty());
    failed = emulator->call(mkdir("never"));
    EXPECT_EQ("Backend Error", failed["error_message"].asString());
    EXPECT_EQ(503, drive->requestLog().back().errorCode);
    EXPECT_TRUE(emulator->call(meta())["success"].asBool());
    EXPECT_EQ(3, drive->faults()[0].seen);
}

// What comes back down the pipe instead of an answer; nothing is made.
TEST_F(Faults, EachWayOfNotAnswering) {
    struct Case {
        Fault rule;
        char const* firstLine;  // its beginning
        int status;             // of the process after end of input
    } const cases[] = {
        {Fault::exitBeforeAnswer("createFolder"), "<none>", 3},
        {Fault::garbage("createFolder", "Traceback (most"), "Traceback (most", 0},
        {Fault::refuseHandshake("ImportError: drive"), "ImportError: drive", 1},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(faultKindName(c.rule.kind));
        drive->addFault(c.rule);
        EmulatorProcess emulator(data);
        if (c.rule.kind != FaultKind::RefuseHandshake) {
            EXPECT_EQ("start", emulator.readLine().value_or("<none>"));
            emulator.send(mkdir("made"));
        }
        EXPECT_EQ(0u, emulator.readLine().value_or("<none>").rfind(c.firstLine, 0));
        EXPECT_EQ(c.status, emulator.finish());
        EXPECT_TRUE(drive->lookup("root", "made").empty());
        drive->clearFaults();
    }
    EXPECT_EQ(2, drive->countRequests());  // starts are not requests
}

// A creation applied whose answer is lost, by an exit or a line cut short,
// with its object missing from the next name listing as well: what makes a
// retry create a duplicate.
TEST_F(Faults, CreationAppliedAnswerLostAndNameListingLagging) {
    Json::Value byName =
        req({{"fn", "listObjects"}, {"queryFilter", "('root' in parents) and (name = 'MADE')"}});
    Json::Value all = req({{"fn", "listObjects"}, {"queryFilter", "'root' in parents"}});
    for (auto const& request : {mkdir("made"), uploadOf("made", "content")}) {
        for (Fault answerLost : {Fault::exitAfterApply("*"), Fault::cutAnswer("*")}) {
            SCOPED_TRACE(request["fn"].asString() + " " + faultKindName(answerLost.kind));
            drive->addFault(answerLost);
            drive->addFault(Fault::listingLag(1));
            auto emulator = start();
            EXPECT_TRUE(emulator->transfer(request).back().isNull());  // no final answer
            EXPECT_EQ(3, emulator->finish());
            bool cut = answerLost.kind == FaultKind::CutAnswer;
            EXPECT_EQ(cut, emulator->unfinished().rfind("{\"", 0) == 0) << emulator->unfinished();
            auto made = drive->lookup("root", "made");
            ASSERT_EQ(1u, made.size());
            // Unfiltered listings do not lag; the name listing catches up.
            auto next = start();
            EXPECT_EQ(1u, next->call(all)["objects"].size());
            EXPECT_EQ(0u, next->call(byName)["objects"].size());
            EXPECT_EQ(1u, next->call(byName)["objects"].size());
            drive->remove(made[0].id);
            drive->clearFaults();
        }
    }
}

// Drive may apply a request and still answer it with a failure; the
// process serves on. A request the model refuses gets its own refusal.
TEST_F(Faults, AppliedThenAnsweredWithAFailure) {
    std::string gone = drive->put("root", "gone", "x");
    Json::Value remove = req({{"fn", "deleteObject"}, {"id", gone}});
    auto emulator = start();
    for (auto const& request : {mkdir("made"), uploadOf("up", "content"), remove}) {
        SCOPED_TRACE(request["fn"].asString());
        drive->addFault(Fault::failAfterApply("*", 503));
        EXPECT_EQ(503, emulator->transfer(request).back()["error_code"].asInt());
    }
    EXPECT_EQ(1u, drive->lookup("root", "made").size());
    EXPECT_EQ(1u, drive->lookup("root", "up").size());
    EXPECT_TRUE(drive->lookup("root", "gone").empty());
    drive->addFault(Fault::failAfterApply("*", 503));
    EXPECT_EQ(404, emulator->call(remove)["error_code"].asInt());
}

// After a move, a lagging search still lists the object under the folder it
// left, with its new parents; only listings of that folder and name show it.
TEST_F(Faults, AnObjectListedUnderItsFormerParent) {
    std::string a = drive->mkdir("root", "a"), b = drive->mkdir("root", "b");
    std::string x = drive->put(a, "x", "1");
    drive->move(x, b);
    drive->addFault(Fault::listedUnderFormerParent(x, a).forNext(3));
    auto emulator = start();
    auto list = [&](std::string const& query) {
        return emulator->call(req({{"fn", "listObjects"}, {"queryFilter", query}}))["objects"];
    };
    Json::Value shown = list("('" + a + "' in parents) and (name = 'x')");
    ASSERT_EQ(1u, shown.size());
    EXPECT_EQ(b, shown[0]["parents"][0].asString());
    EXPECT_EQ(0u, list("('" + a + "' in parents) and (name = 'y')").size());
    EXPECT_EQ(1u, list("'" + b + "' in parents").size());  // only in b
    EXPECT_EQ(0u, list("'" + a + "' in parents").size());  // the rule is spent
}

TEST_F(Faults, DownloadsCutShortOrLongAndUploadsDyingHalfWayStoreNothing) {
    std::string file = drive->put("root", "f", "0123456789");
    auto emulator = start();
    drive->addFault(Fault::shortDownload());
    drive->addFault(Fault::longDownload().onNth(2));
    for (char const* expected : {"012345678", "0123456789\n", "0123456789"}) {
        EXPECT_TRUE(emulator->transfer(download(file)).back()["success"].asBool());
        EXPECT_EQ(expected, readFile(data + "/out"));
    }
    changeSettings([](Settings& s) { s.progressBytes = 100; });
    drive->addFault(Fault::exitAfterProgress("uploadFile", 5));
    auto messages = emulator->transfer(uploadOf("f2", std::string(1000, 'y')));
    EXPECT_EQ(6u, messages.size());  // five progress messages, then nothing
    EXPECT_EQ(0.5, messages[4]["progress"].asDouble());
    EXPECT_EQ(3, emulator->finish());
    EXPECT_TRUE(drive->lookup("root", "f2").empty());
}

// A listing that repeats: the first page's last object comes again on a second
// page, and the listing still ends.
TEST_F(Faults, RepeatedListingShowsTheLastObjectOnANextPage) {
    drive->put("root", "a", "1");
    drive->put("root", "b", "2");
    drive->addFault(Fault::repeatListing().always());
    auto emulator = start();
    auto names = [&](std::string const& query) {
        std::string seen;
        for (Json::Value page = Json::objectValue;
             seen.empty() || page.isMember("nextPageToken");) {
            Json::Value request = req({{"fn", "listObjects"}, {"queryFilter", query}});
            if (page.isMember("nextPageToken")) request["pageToken"] = page["nextPageToken"];
            page = emulator->call(request);
            for (auto const& object : page["objects"]) seen += object["name"].asString();
            seen += "|";
        }
        return seen;
    };
    EXPECT_EQ("ab|b|", names("'root' in parents"));
    EXPECT_EQ("a|a|", names("('root' in parents) and (name = 'a')"));
    EXPECT_EQ("|", names("('root' in parents) and (name = 'c')"));
}
