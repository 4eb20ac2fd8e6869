// Which job a free worker gets: the pool's requests depend on workers
// staying in the folder whose place their agent has confirmed.
#include "job_queue.h"

#include <gtest/gtest.h>

#include <set>

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

// A worker goes first where its agent knows the place already: a folder to
// make beside one it made, files in a folder it made or listed.
TEST(JobQueueTest, WorkersPreferFoldersTheirAgentKnows) {
    JobQueue queue;
    for (char const* near : {"x", "y", "x"}) {
        Json::Value mkdir = job(std::string("in-") + near + std::to_string(queue.size()));
        mkdir["near"] = near;
        queue.add(mkdir);
    }
    for (char const* group : {"a", "b", "c"})
        for (int n = 0; n < 2; ++n) queue.add(job(group + std::to_string(n), group));
    struct Case {
        std::set<std::string> known;
        std::vector<std::string> elsewhere;
        char const* expected;
    };
    Case const cases[] = {
        {{"y"}, {}, "in-y1"},            // beside the folder it knows, not the first queued
        {{"q"}, {}, "in-x0"},            // none known: the first
        {{"x"}, {}, "in-x2"},            //
        {{"b"}, {}, "b0"},               // a known folder nobody is in before the first
        {{}, {"b"}, "a0"},               // the first nobody is in
        {{"b", "c"}, {"a", "b"}, "c0"},  // a known one nobody is in before one with others
        {{"b"}, {"a", "b", "c"}, "b1"},  // a known one with others before waiting
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.expected);
        EXPECT_EQ(c.expected, nameOf(queue.take("", c.elsewhere, false, c.known)));
    }
    EXPECT_EQ("(wait)", nameOf(queue.take("", {"a", "b", "c"}, false, {"b"})));
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
