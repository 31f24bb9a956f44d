#pragma once
// The benchmark programs' main, for programs that need a main of their own
// (to set up an application first): plain Google Benchmark, or the modes
// bench/run uses (BenchMain.cpp). Returns the exit status.
namespace bench {

int runBenchmarks(int argc, char** argv);

} // namespace bench
