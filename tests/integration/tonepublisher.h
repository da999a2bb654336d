#ifndef ZEV_TESTS_TONEPUBLISHER_H
#define ZEV_TESTS_TONEPUBLISHER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

/*!
 * Publishes a sine per channel into a store, in real time, until it is destroyed: what a sender does. The
 * phase is a function of the sample's number only, so that the tone has no seam but where the publisher was
 * started anew.
 */
class TonePublisher
{
public:
    struct Tone
    {
        double frequency; // Hz
        double amplitude; // 0 to 32767
    };

    /*!
     * `dropEvery`: after so many samples one is left out, as if it had been lost on the way; 0: none.
     * `ppm`: its clock runs so many millionths faster than the machine's; timestamps are its own.
     */
    TonePublisher(std::string name, int rate, std::vector<Tone> tones, int64_t dropEvery = 0, int ppm = 0);
    ~TonePublisher();
    TonePublisher(const TonePublisher &) = delete;
    TonePublisher &operator=(const TonePublisher &) = delete;

    bool isPublished() const { return published; }

private:
    void run();

    const std::string name;
    const int rate;
    const std::vector<Tone> tones;
    const int64_t dropEvery;
    const int ppm;
    std::atomic<bool> published{false};
    std::atomic<bool> stopping{false};
    std::thread thread;
};

#endif
