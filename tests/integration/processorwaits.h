#ifndef ZEV_TESTS_PROCESSORWAITS_H
#define ZEV_TESTS_PROCESSORWAITS_H

#include <map>
#include <string>
#include <vector>

/*!
 * How long the threads of this process and of those that it started have been ready to run without getting a
 * processor: what the machine, and not the program, made late. The kernel counts it for every thread
 * (/proc/PID/task/TID/schedstat). What the processors themselves were away, which a virtual machine is told
 * of, counts too.
 *
 * Threads: one. Cost: a file read per thread.
 */
class ProcessorWaits
{
public:
    /*! The longest that one of the threads waited between the last call and this one; 0 the first time. */
    double sinceLastMs();

private:
    std::map<std::string, double> waited; // ms by thread
    double stolen = -1;                   // ms
};

#endif
