// The helper channel's own cost: one small request and its answer through
// AgentClient::send, beside the same bytes over the bare pipes to the same
// echo helper in the same run.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "backup/agent_client.h"
#include "backup/json_text.h"

namespace {

class EchoClient : public TAVO::Backup::AgentClient {
  public:
    bool connect(std::string const&, std::string const&, bool) override {
        close();
        _pipe = TAVOPipeOpen(&_child_pid, ECHO_AGENT_PATH, nullptr);
        return _pipe != nullptr;
    }
    bool isSuccessResponse(Json::Value const& response) const override {
        return response.get("success", false).asBool();
    }
    bool fillCanceledResponse(Json::Value& response) const override {
        response = Json::Value(Json::objectValue);
        response["success"] = false;
        response["error_code"] = -3;
        return true;
    }
};

Json::Value smallRequest() {
    Json::Value request;
    request["fn"] = "getObjectMeta";
    request["id"] = "1a2B3c4D5e6F7g8H9i0JkLmNoPqRsTuVw";
    return request;
}

void BM_AgentClientRoundTrip(benchmark::State& state) {
    EchoClient client;
    if (!client.connect("", "", true)) {
        state.SkipWithError("cannot start the echo helper");
        return;
    }
    client.setRetryPolicy(10, 5, [](Json::Value const&) { return false; });
    Json::Value const request = smallRequest();
    Json::Value response;
    for (auto _ : state) {
        if (!client.send(request, response)) {
            state.SkipWithError("exchange failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AgentClientRoundTrip)->UseRealTime();

void BM_RawPipePingPong(benchmark::State& state) {
    pid_t pid = -1;
    TAVOPipe* pipe = TAVOPipeOpen(&pid, ECHO_AGENT_PATH, nullptr);
    if (pipe == nullptr) {
        state.SkipWithError("cannot start the echo helper");
        return;
    }
    std::string const line = TAVO::JsonText::toString(smallRequest()) + "\n";
    char answer[256];
    for (auto _ : state) {
        if (write(pipe->writeFd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            state.SkipWithError("write failed");
            break;
        }
        size_t got = 0;
        do {
            ssize_t n = read(pipe->readFd, answer + got, sizeof answer - got);
            if (n <= 0) {
                state.SkipWithError("read failed");
                break;
            }
            got += static_cast<size_t>(n);
        } while (answer[got - 1] != '\n');
        benchmark::DoNotOptimize(answer);
    }
    state.SetItemsProcessed(state.iterations());
    TAVOPipeFree(pipe);
    waitpid(pid, nullptr, 0);
}
BENCHMARK(BM_RawPipePingPong)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
