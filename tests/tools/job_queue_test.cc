// Which job a free worker gets: the pool's requests depend on workers
// staying in the folder whose place their agent has confirmed.
#include "job_queue.h"

#include <gtest/gtest.h>

namespace {

using gdhost::JobQueue;

Json::Value job(std::string const& name, char const* group = nullptr) {
    Json::Value j(Json::objectValue);
    j["name"] = name;
    if (group) j["group"] = group;
    return j;
}

std::string nameOf(Json::Value const& j) { return j.isNull() ? "(wait)" : j["name"].asString(); }

TEST(JobQueueTest, WorkersStayInTheirFolderAndJoinOnlyABusyOne) {
    JobQueue queue;
    for (int n = 0; n < 3; ++n) queue.add(job("a" + std::to_string(n), "a"));
    for (int n = 0; n < 10; ++n) queue.add(job("b" + std::to_string(n), "b"));
    queue.add(job("mkdir"));
    queue.putBack(job("retry"));
    EXPECT_EQ(15u, queue.size());

    struct Case {
        char const* home;
        std::vector<std::string> elsewhere;
        bool anyway;
        char const* expected;
    };
    Case const cases[] = {
        {"a", {}, false, "retry"},                // ungrouped jobs first, a put back one before all
        {"a", {}, false, "mkdir"},                //
        {"b", {"a"}, false, "b0"},                // its own folder
        {"x", {"b"}, false, "a0"},                // the first folder nobody is in
        {"x", {"a", "b"}, false, "b1"},           // 9 left in b for one worker: join it
        {"x", {"a", "b", "b"}, false, "(wait)"},  // 8 for two: not worth a newcomer
        {"x", {"a", "b", "b"}, true, "b2"},       // unless nobody is busy
        {"a", {"b"}, false, "a1"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.expected);
        EXPECT_EQ(c.expected, nameOf(queue.take(c.home, c.elsewhere, c.anyway)));
    }
    EXPECT_EQ(8u, queue.size());
    std::vector<std::string> rest;
    while (!queue.empty()) rest.push_back(nameOf(queue.take("", {}, true)));
    EXPECT_EQ((std::vector<std::string>{"a2", "b3", "b4", "b5", "b6", "b7", "b8", "b9"}), rest);
}

// A job already done another way (a warm-up listed its folder) is taken
// out by what it does, wherever it is queued.
TEST(JobQueueTest, AJobIsTakenOutByItsOperationAndTarget) {
    JobQueue queue;
    auto listing = [](char const* remote, char const* group) {
        Json::Value j = job(remote, group);
        j["op"] = "list";
        j["remote"] = remote;
        return j;
    };
    queue.add(listing("top/a", "top"));
    queue.add(listing("top/b", "top"));
    queue.add(listing("other", nullptr));
    EXPECT_EQ("top/b", nameOf(queue.takeLike(listing("top/b", "top"))));
    EXPECT_EQ("other", nameOf(queue.takeLike(listing("other", nullptr))));
    EXPECT_EQ("(wait)", nameOf(queue.takeLike(listing("top/b", "top"))));  // taken already
    Json::Value removal = listing("top/a", "top");
    removal["op"] = "remove";
    EXPECT_EQ("(wait)", nameOf(queue.takeLike(removal)));  // same target, other operation
    EXPECT_EQ(1u, queue.size());
    EXPECT_EQ("top/a", nameOf(queue.take("top", {}, false)));
}

}  // namespace
