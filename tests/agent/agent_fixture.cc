#include "agent_fixture.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

namespace AgentTest {

AgentOnFake::AgentOnFake(bool throughProxy, bool tls)
    : data(TestSupport::makeTempFolder("agent-data")),
      scratch(TestSupport::makeTempFolder("agent-local")) {
    drive.emplace(DriveEmulator::Drive::init(data));
    std::string cert, key;
    if (tls) {
        cert = scratch + "/cert.pem";
        key = scratch + "/key.pem";
        std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 "
            "-subj /CN=127.0.0.1 "
            "-addext subjectAltName=IP:127.0.0.1 -keyout " +
            key + " -out " + cert + " >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) ADD_FAILURE() << "openssl made no certificate";
    }
    fake = std::make_unique<DriveFake::FakeDrive>(data, cert, key);
    fake->acceptClient("123456789012-abc.apps.example.com", "Qm7vT2xK_pL9R-04Hd3WaNce");
    if (throughProxy) proxy = std::make_unique<DriveFake::CutProxy>(fake->port());
    configure(cert);
}

void AgentOnFake::configure(std::string const& caFile) {
    std::string url = proxy ? proxy->url() : fake->url();
    std::ofstream conf(scratch + "/drive_agent.conf");
    conf << "api_url = " << url << "\ntoken_url = " << url << "/token\nstall_seconds = 5\n";
    if (!caFile.empty()) conf << "ca_file = " << caFile << "\n";
}

AgentOnFake::~AgentOnFake() {
    proxy.reset();
    fake.reset();
    drive.reset();
    std::error_code ignored;
    std::filesystem::remove_all(data, ignored);
    std::filesystem::remove_all(scratch, ignored);
}

std::unique_ptr<EmulatorProcess> AgentOnFake::start(Env const& env) {
    Env all = env;
    all.emplace("DRIVE_AGENT_CONF", scratch + "/drive_agent.conf");
    auto agent = std::make_unique<EmulatorProcess>(data, all, DRIVE_AGENT_BINARY);
    EXPECT_EQ(agent->readLine().value_or("<nothing>"), "start");
    return agent;
}

void writePattern(std::string const& path, std::int64_t size, unsigned seed) {
    std::mt19937_64 random(seed);
    std::vector<std::uint64_t> block(1 << 17);
    for (auto& word : block) word = random();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (std::int64_t left = size; left > 0;) {
        // Rotate the block per megabyte so that no two megabytes are alike.
        std::rotate(block.begin(), block.begin() + 1, block.end());
        auto n = std::min<std::int64_t>(left, std::int64_t(block.size() * 8));
        out.write(reinterpret_cast<char const*>(block.data()), n);
        left -= n;
    }
}

httplib::Headers AgentOnFake::bearer() {
    auto answer = httplib::Client("127.0.0.1", fake->port())
                      .Post("/token",
                            "grant_type=refresh_token&refresh_token=1//0gRefreshToken&client_id="
                            "123456789012-abc.apps.example.com&client_secret=Qm7vT2xK_pL9R-"
                            "04Hd3WaNce",
                            "application/x-www-form-urlencoded");
    std::string body = answer ? answer->body : "";
    size_t at = body.find("ya29.");  // none: substr throws, and the test fails
    return {{"Authorization", "Bearer " + body.substr(at, body.find('"', at) - at)}};
}

Json::Value AgentOnFake::download(EmulatorProcess& agent, std::string const& id) {
    return agent
        .transfer(req({{"fn", "downloadFile"}, {"id", id}, {"outputPath", scratch + "/out"}}))
        .back();
}

std::string fileMd5(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_md5(), nullptr);
    std::vector<char> buffer(1 << 20);
    while (in) {
        in.read(buffer.data(), std::streamsize(buffer.size()));
        EVP_DigestUpdate(ctx, buffer.data(), static_cast<size_t>(in.gcount()));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    EVP_DigestFinal_ex(ctx, digest, &len);
    EVP_MD_CTX_free(ctx);
    char hex[3];
    std::string text;
    for (unsigned i = 0; i < len; ++i) {
        snprintf(hex, sizeof hex, "%02x", digest[i]);
        text += hex;
    }
    return text;
}

}  // namespace AgentTest
