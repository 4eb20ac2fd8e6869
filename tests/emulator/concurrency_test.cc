// Several emulator processes and the control library on one data folder at
// once: nothing may be lost, duplicated or half-applied, and the quota holds.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

using Concurrency = AccountTest;

TEST_F(Concurrency, TwoProcessesAndTheControlLibraryWriteAtOnce) {
    constexpr int kFolders = 40, kUploads = 10;
    std::string target = drive->mkdir("root", "shared");
    writeFile(data + "/in", "0123456789");
    auto a = start(), b = start();
    // Queue every request in both pipes before reading anything, so the two
    // processes really do compete for the database.
    for (auto* p : {a.get(), b.get()}) {
        for (int i = 0; i < kFolders + kUploads; ++i) {
            Json::Value r = req({{"fn", i < kFolders ? "createFolder" : "uploadFile"},
                                 {"name", "n" + std::to_string(i)},
                                 {"parentId", target}});
            if (i >= kFolders) r["inputPath"] = data + "/in";
            p->send(r);
        }
    }
    std::thread control([&] {
        Drive own = Drive::open(data);
        for (int i = 0; i < 20; ++i) own.put(target, "c" + std::to_string(i), "abc");
    });
    std::set<std::string> ids;
    for (auto* p : {a.get(), b.get()}) {
        for (int i = 0; i < kFolders + kUploads; ++i) {
            Json::Value m = p->finalAnswer();
            ASSERT_TRUE(m["success"].asBool()) << m;
            ids.insert(m["id"].asString());
        }
    }
    control.join();
    EXPECT_EQ(2u * (kFolders + kUploads), ids.size());
    std::vector<Object> children = drive->children(target);
    EXPECT_EQ(2u * (kFolders + kUploads) + 20, children.size());
    for (auto const& child : children) {
        if (!child.isDir && child.name[0] == 'n') {
            EXPECT_EQ("0123456789", drive->content(child.id));
        }
    }
    EXPECT_EQ(2 * kUploads * 10 + 20 * 3, drive->account().usedSize);
    EXPECT_EQ(2 * kFolders, drive->countRequests("createFolder"));
    EXPECT_EQ(0, a->finish());
    EXPECT_EQ(0, b->finish());
}

TEST_F(Concurrency, QuotaHoldsWhenTwoUploadsRace) {
    drive->setQuota(15);
    writeFile(data + "/in", "0123456789");
    auto a = start(), b = start();
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        for (auto* p : {a.get(), b.get()}) {
            p->send(req({{"fn", "uploadFile"},
                         {"name", "f"},
                         {"parentId", "root"},
                         {"inputPath", data + "/in"}}));
        }
        std::multiset<int> codes;
        for (auto* p : {a.get(), b.get()})
            codes.insert(p->finalAnswer().get("error_code", 0).asInt());
        EXPECT_EQ((std::multiset<int>{0, 403}), codes);
        EXPECT_EQ(10, drive->account().usedSize);
        for (auto const& o : drive->children("root")) drive->remove(o.id);
    }
}
