// One script of requests, run against the emulator and against drive_agent on
// the REST fake: the answers must agree, ids and times masked. A disagreement
// is a bug in one of the two, whichever it is.
#include <gtest/gtest.h>
#include <json/writer.h>

#include <filesystem>
#include <map>

#include "agent_fixture.h"

using namespace AgentTest;
using DriveEmulator::Drive;

namespace {

// Runs the script on `agent`, whose account `drive` shapes out of band;
// returns every answer line, masked.
std::vector<std::string> runScript(EmulatorProcess& agent, Drive& drive, std::string const& local) {
    std::vector<std::string> lines;
    std::map<std::string, std::string> labels = {{drive.rootId(), "<root>"}};
    auto call = [&](Json::Value const& request) {
        std::vector<Json::Value> answers = agent.transfer(request);
        for (auto& answer : answers) {
            if (answer.isMember("id") && !labels.count(answer["id"].asString())) {
                labels[answer["id"].asString()] = "<" + std::to_string(labels.size()) + ">";
            }
            std::function<void(Json::Value&)> maskTimes = [&](Json::Value& v) {
                if (v.isObject() && v.isMember("lastModified")) v["lastModified"] = 0;
                if (v.isObject() || v.isArray()) {
                    for (auto& member : v) maskTimes(member);
                }
            };
            maskTimes(answer);
            std::string text = Json::FastWriter().write(answer);
            for (auto const& [id, label] : labels) {
                for (size_t at; (at = text.find(id)) != std::string::npos;)
                    text.replace(at, id.size(), label);
            }
            lines.push_back(Json::writeString(Json::StreamWriterBuilder(), request["fn"]) + " -> " +
                            text);
        }
        return answers.back();
    };
    std::string const in = local + "/in";
    std::string const out = local + "/out";
    call(req({{"fn", "getObjectMeta"}, {"id", "root"}}));
    std::string folder =
        call(req({{"fn", "createFolder"}, {"name", "Backups"}, {"parentId", "root"}}))["id"]
            .asString();
    std::string pool =
        call(req({{"fn", "createFolder"}, {"name", "Pool"}, {"parentId", folder}}))["id"]
            .asString();
    writeFile(in, "hello world");
    std::string file = call(EmulatorTest::upload(folder, in, "Data.bin"))["id"].asString();
    call(req(
        {{"fn", "uploadEmptyFile"}, {"name", "empty"}, {"parentId", folder}, {"inputPath", in}}));
    call(req({{"fn", "listObjects"}, {"queryFilter", "'" + folder + "' in parents"}}));
    call(req({{"fn", "listObjects"},
              {"queryFilter", "'" + folder + "' in parents and name = 'data.BIN'"}}));
    call(
        req({{"fn", "listObjects"},
             {"queryFilter",
              "'" + folder + "' in parents and mimeType = 'application/vnd.google-apps.folder'"}}));
    writeFile(in, "changed contents");
    call(req({{"fn", "updateFile"}, {"id", file}, {"inputPath", in}}));
    call(req({{"fn", "downloadFile"}, {"id", file}, {"outputPath", out}}));
    EXPECT_EQ("changed contents", readFile(out));
    call(req({{"fn", "updateEmptyFile"}, {"id", file}, {"inputPath", in}}));
    call(req({{"fn", "downloadFile"}, {"id", file}, {"outputPath", out}}));
    EXPECT_EQ("", readFile(out));
    drive.trash(pool);
    call(req({{"fn", "listObjects"}, {"queryFilter", "'" + folder + "' in parents"}}));
    call(req({{"fn", "getObjectMeta"}, {"id", pool}}));
    call(req({{"fn", "createFolder"}, {"name", "x"}, {"parentId", file}}));
    call(req({{"fn", "downloadFile"}, {"id", folder}, {"outputPath", out}}));
    call(req({{"fn", "getObjectMeta"}, {"id", "1NoSuchObjectAnywhere"}}));
    call(req({{"fn", "listObjects"}, {"queryFilter", "name = 'unclosed"}}));
    call(req({{"fn", "deleteObject"}, {"id", pool}}));
    call(req({{"fn", "getObjectMeta"}, {"id", pool}}));
    call(req({{"fn", "deleteObject"}, {"id", "root"}}));
    call(req({{"fn", "getAccountInfo"}}));
    drive.setQuota(drive.account().usedSize + 5);
    call(req({{"fn", "getAccountInfo"}}));
    call(EmulatorTest::upload(folder, in, "big"));
    call(req({{"fn", "noSuchRequest"}}));
    call(req({{"fn", "getObjectMeta"}}));
    return lines;
}

}  // namespace

TEST(ProtocolScript, EmulatorAndAgentOnTheFakeAnswerAlike) {
    AgentOnFake onFake;
    std::string emulatorData = TestSupport::makeTempFolder("script-emulator");
    std::vector<std::string> emulated;
    {
        Drive drive = Drive::init(emulatorData);
        EmulatorProcess emulator(emulatorData);
        ASSERT_EQ("start", emulator.readLine().value_or(""));
        emulated = runScript(emulator, drive, onFake.scratch);
    }
    std::filesystem::remove_all(emulatorData);
    auto agent = onFake.start();
    std::vector<std::string> real = runScript(*agent, *onFake.drive, onFake.scratch);
    ASSERT_EQ(emulated.size(), real.size());
    for (size_t i = 0; i < real.size(); ++i) EXPECT_EQ(emulated[i], real[i]) << "line " << i;
    EXPECT_EQ(0, agent->finish());
}
