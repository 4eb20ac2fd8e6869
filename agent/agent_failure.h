// The one kind of failure the drive agent answers with: a code of the pipe
// protocol (an HTTP status of the service or a negative agent code) and the
// message the plug-in reads.
#pragma once

#include <stdexcept>
#include <string>

namespace DriveAgent {

// Negative codes of the agent itself, as the plug-in knows them.
constexpr int kLocalFailure = -1;      // a local file could not be read or written
constexpr int kTransportFailure = -2;  // the connection failed after the agent's own resumes
constexpr int kIntegrityFailure = -4;  // the service holds other bytes than were sent or read
// An answer past the agent's bound: the same request would meet it again, so
// the code is one the plug-in does not retry.
constexpr int kAnswerTooLarge = -5;
// The service's TLS certificate was refused: not passing, not retried.
constexpr int kTlsRefused = -6;

class AgentFailure : public std::runtime_error {
  public:
    AgentFailure(int code, std::string const& message) : std::runtime_error(message), _code(code) {}
    int code() const { return _code; }

  private:
    int _code;
};

}  // namespace DriveAgent
