#include "processorwaits.h"

#include <algorithm>
#include <fstream>

#include <dirent.h>
#include <unistd.h>

namespace {

// Time that was taken from the processors comes in ticks: what is seen in one may have been collected since
// long before.
const int certainTicks = 2;

std::vector<std::string> threadsOf(const std::string &process)
{
    std::vector<std::string> threads;
    const std::string folder = "/proc/" + process + "/task";
    DIR *tasks = opendir(folder.c_str());
    if (!tasks)
        return threads;
    while (const dirent *entry = readdir(tasks))
        if (entry->d_name[0] != '.')
            threads.push_back(folder + '/' + entry->d_name);
    closedir(tasks);
    return threads;
}

double stolenMs()
{
    std::ifstream stat("/proc/stat");
    std::string name;
    double ticks[8] = {};
    stat >> name;
    for (double &tick : ticks)
        stat >> tick;
    return ticks[7] * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

} // namespace

double ProcessorWaits::sinceLastMs()
{
    std::vector<std::string> threads = threadsOf("self");
    const std::string own = std::to_string(getpid());
    std::ifstream children("/proc/self/task/" + own + "/children");
    for (std::string child; children >> child;)
        for (std::string &thread : threadsOf(child))
            threads.push_back(std::move(thread));

    double longest = 0;
    std::map<std::string, double> now;
    for (const std::string &thread : threads) {
        double ran = 0, waiting = 0;
        std::ifstream(thread + "/schedstat") >> ran >> waiting;
        waiting /= 1e6;
        now[thread] = waiting;
        const auto before = waited.find(thread);
        if (before != waited.end())
            longest = std::max(longest, waiting - before->second);
    }
    waited.swap(now);

    const double stolenNow = stolenMs();
    const double tickMs = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    if (stolen >= 0 && stolenNow - stolen >= certainTicks * tickMs)
        longest = std::max(longest, stolenNow - stolen - tickMs);
    stolen = stolenNow;
    return longest;
}
