// The main of the programs that have none of their own; the linker takes it
// from the library only when a program does not define main itself.
#include "BenchMain.h"

int main(int argc, char** argv)
{
    return bench::runBenchmarks(argc, argv);
}
