#ifndef ZEV_TESTS_SHMEMREADER_PROBE_H
#define ZEV_TESTS_SHMEMREADER_PROBE_H

#include "sources/shmemreader.h"

/*! What only tests may know and do of a reader. Threads: one. */
class ShmemReaderProbe
{
public:
    /*! As if the second since the last look at the store had passed. */
    static void letASecondPass(ShmemReader &reader) { reader.checkTimer.invalidate(); }
    static long long syncMin(const ShmemReader &reader) { return reader.realtimeSyncMin; }
    static long long syncMax(const ShmemReader &reader) { return reader.realtimeSyncMax; }
};

#endif
