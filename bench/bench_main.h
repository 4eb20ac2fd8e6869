// The main() of a benchmark program that drives child processes over pipes.
#pragma once

#include <benchmark/benchmark.h>

#include <csignal>

namespace BenchSupport {

// Runs the benchmarks the command line selects. A child that dies must show
// as a failed write, not end the benchmark with SIGPIPE.
inline int runBenchmarks(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace BenchSupport
