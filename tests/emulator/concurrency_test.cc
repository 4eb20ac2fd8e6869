// Several emulator processes and the control library on one data folder at
// once: nothing may be lost, duplicated or half-applied.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "drive_control.h"
#include "emulator_process.h"

using namespace DriveEmulator;
using namespace EmulatorTest;

namespace {

class Concurrency : public ::testing::Test {
  protected:
    void SetUp() override { drive.emplace(Drive::init(data)); }
    void TearDown() override {
        drive.reset();
        removeTree(data);
    }
    std::string data = makeTempFolder("emulator-concurrency");
    std::optional<Drive> drive;
};

}  // namespace

TEST_F(Concurrency, TwoProcessesAndTheControlLibraryWriteAtOnce) {
    constexpr int kFolders = 40;
    constexpr int kUploads = 10;
    std::string target = drive->mkdir("root", "shared");
    std::string local = data + "/in";
    writeFile(local, "0123456789");

    EmulatorProcess a(data), b(data);
    ASSERT_TRUE(a.handshake());
    ASSERT_TRUE(b.handshake());
    // Queue every request in both pipes before reading anything, so the two
    // processes really do compete for the database.
    for (EmulatorProcess* p : {&a, &b}) {
        for (int i = 0; i < kFolders + kUploads; ++i) {
            Json::Value r;
            r["fn"] = i < kFolders ? "createFolder" : "uploadFile";
            r["name"] = "n" + std::to_string(i);
            r["parentId"] = target;
            if (i >= kFolders) r["inputPath"] = local;
            p->send(r);
        }
    }
    std::thread control([&] {
        Drive own = Drive::open(data);
        for (int i = 0; i < 20; ++i) own.put(target, "c" + std::to_string(i), "abc");
    });
    std::set<std::string> ids;
    for (EmulatorProcess* p : {&a, &b}) {
        for (int i = 0; i < kFolders + kUploads; ++i) {
            Json::Value m;
            do {
                m = p->receive();
            } while (m.isObject() && !m.get("complete", true).asBool());
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
    EXPECT_EQ(2 * kUploads, drive->countRequests("uploadFile"));
    EXPECT_EQ(0, a.finish());
    EXPECT_EQ(0, b.finish());
}

TEST_F(Concurrency, QuotaHoldsWhenTwoUploadsRace) {
    drive->setQuota(15);
    std::string local = data + "/in";
    writeFile(local, "0123456789");
    EmulatorProcess a(data), b(data);
    ASSERT_TRUE(a.handshake());
    ASSERT_TRUE(b.handshake());
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        for (EmulatorProcess* p : {&a, &b}) {
            Json::Value r;
            r["fn"] = "uploadFile";
            r["name"] = "f";
            r["parentId"] = "root";
            r["inputPath"] = local;
            p->send(r);
        }
        int stored = 0, refused = 0;
        for (EmulatorProcess* p : {&a, &b}) {
            Json::Value m;
            do {
                m = p->receive();
            } while (m.isObject() && !m.get("complete", true).asBool());
            m["success"].asBool() ? ++stored : ++refused;
            if (!m["success"].asBool()) {
                EXPECT_EQ(403, m["error_code"].asInt());
            }
        }
        EXPECT_EQ(1, stored);
        EXPECT_EQ(1, refused);
        EXPECT_EQ(10, drive->account().usedSize);
        for (auto const& o : drive->children("root")) drive->remove(o.id);
    }
}

TEST_F(Concurrency, FaultFiresOnceAcrossProcesses) {
    drive->addFault(Fault::fail("getObjectMeta", 503).onNth(10));
    EmulatorProcess a(data), b(data);
    ASSERT_TRUE(a.handshake());
    ASSERT_TRUE(b.handshake());
    Json::Value r;
    r["fn"] = "getObjectMeta";
    r["id"] = "root";
    for (int i = 0; i < 10; ++i) {
        a.send(r);
        b.send(r);
    }
    int failures = 0;
    for (int i = 0; i < 10; ++i) {
        failures += !a.receive()["success"].asBool();
        failures += !b.receive()["success"].asBool();
    }
    EXPECT_EQ(1, failures);
    EXPECT_EQ(20, drive->faults()[0].seen);
}
