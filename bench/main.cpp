// Defaults that make ratios within one run worth something on a machine that is busy with other things: every
// benchmark repeated twenty times, the repetitions of all benchmarks in random order. Arguments override
// them. A benchmark that gave up (SkipWithError) makes the program fail.
#include <benchmark/benchmark.h>

#include <memory>
#include <type_traits>
#include <vector>

namespace {

// Newer versions of the library call it skipped, for which they have two reasons.
template <typename Run, typename = void>
struct GivenUp
{
    static bool is(const Run &run) { return bool(run.skipped); }
};
template <typename Run>
struct GivenUp<Run, std::void_t<decltype(Run::error_occurred)>>
{
    static bool is(const Run &run) { return run.error_occurred; }
};

// Hands everything on to the reporter that the arguments ask for.
class Watching : public benchmark::BenchmarkReporter
{
public:
    bool hasGivenUp() const { return givenUp; }

    bool ReportContext(const Context &context) override
    {
        shown->SetOutputStream(&GetOutputStream());
        shown->SetErrorStream(&GetErrorStream());
        return shown->ReportContext(context);
    }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            givenUp = givenUp || GivenUp<Run>::is(run);
        shown->ReportRuns(runs);
    }
    void Finalize() override { shown->Finalize(); }

private:
    std::unique_ptr<benchmark::BenchmarkReporter> shown{benchmark::CreateDefaultDisplayReporter()};
    bool givenUp = false;
};

} // namespace

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
    Watching reporter;
    const size_t run = benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return run > 0 && !reporter.hasGivenUp() ? 0 : 1;
}
