#ifndef ZEV_TESTS_FAKE_AUDIOSTORE_H
#define ZEV_TESTS_FAKE_AUDIOSTORE_H

#include <shm/shm_reader.h>

#include <cstdint>
#include <vector>

/*!
 * A store with audio only, for tests: defines every shm_reader_* function that the library calls. It holds
 * the audio between `oldest` and `newest`, where the sample of a channel at a time is a fixed function of
 * both, so that a test knows what any read has to deliver. Set the fields, call MediaSource::open() when the
 * format changed.
 *
 * Threads: one.
 */
class FakeAudioStore
{
public:
    struct Query
    {
        int stream;
        unsigned long frames;
        int64_t timestamp;
        int64_t delivered;
    };

    static FakeAudioStore &instance();
    /*! Stereo at 48 kHz; two seconds of it up to 1000000000. */
    void reset();
    /*! Audio goes on for `us` microseconds. */
    void pass(int64_t us);

    /*! What a store holds as sample number `index` since time 0. */
    static int16_t sample(int64_t index, int channel);
    int64_t indexOf(int64_t timestamp) const;

    bool exists;
    bool hasAudio;
    int sampleRate;
    int channels;
    int64_t oldest;
    int64_t newest;
    /*! At most so many frames are delivered by a query; -1 for no limit. */
    int64_t deliverAtMost;
    bool fillsSamples; // off, a query only counts: for long simulations
    bool isRecording;  // queries; off, nothing is allocated
    std::vector<Query> queries;
    int formatQueries;
    int statusQueries;
    int openHandles;
};

#endif
