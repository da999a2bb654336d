// Defaults that make ratios within one run worth something on a machine that is busy with other things: every
// benchmark repeated twenty times, the repetitions of all benchmarks in random order. Arguments override
// them.
#include <benchmark/benchmark.h>
#include <vector>

int main(int argc, char **argv)
{
    char repetitions[] = "--benchmark_repetitions=20";
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char minTime[] = "--benchmark_min_time=0.05";
    std::vector<char *> arguments{argv[0], repetitions, interleaving, minTime};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 2;
    const size_t run = benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return run > 0 ? 0 : 1;
}
