#pragma once

#include <QtGlobal>

#include <chrono>

/* Now, as timestamps of frames and sound are given: microseconds. */
inline qint64 wallClockUs()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}
