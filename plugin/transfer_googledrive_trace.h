// The operation trace: an engine-facing operation (and a few requests) is
// bracketed by one of these. With debugging on it clears the error state at
// the start and, on every way out, writes one line through the engine's debug
// writer with the elapsed time, the call and the resulting error code.
#pragma once

#include <sys/time.h>

#include <exception>
#include <string>

#include "backup/error.h"
#include "backup/transfer_agent.h"

namespace TAVO {
namespace Backup {

class OperationTrace {
  public:
    // `name` must outlive the trace (a string literal). The argument texts are
    // copied only when debugging is on.
    OperationTrace(char const* name, std::string const& first, std::string const& second = "")
        : _name(name), _on(TransferAgent::isDebug()), _exceptions(std::uncaught_exceptions()) {
        if (!_on) return;
        _first = first;
        _second = second;
        setError(0);
        _start_us = nowMicros();
    }

    ~OperationTrace() {
        if (!_on || !TransferAgent::isDebug()) return;
        double elapsed = (nowMicros() - _start_us) / 1000000.0;
        // Left by an exception, the operation is about to fail with 1 at the
        // edge, after this line: say so rather than the code from before.
        int code = std::uncaught_exceptions() > _exceptions ? ERR_GENERAL : getError();
        TransferAgent::debug("%lf %s(%s%s%s) [%d]", elapsed, _name, _first.c_str(),
                             _second.empty() ? "" : ", ", _second.c_str(), code);
    }

    OperationTrace(OperationTrace const&) = delete;
    OperationTrace& operator=(OperationTrace const&) = delete;

  private:
    static long long nowMicros() {
        struct timeval tv;
        gettimeofday(&tv, nullptr);
        return tv.tv_sec * 1000000LL + tv.tv_usec;
    }

    char const* _name;
    bool _on;
    int _exceptions;
    std::string _first;
    std::string _second;
    long long _start_us = 0;
};

}  // namespace Backup
}  // namespace TAVO
