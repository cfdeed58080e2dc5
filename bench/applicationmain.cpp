// main() of the benchmarks that touch the network: like Google Benchmark's own, with the Qt application object
// that network exchanges need (a host with its own object, so flat calls take no lock and make no temporary one).

#include <QCoreApplication>

#include <benchmark/benchmark.h>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
