#ifndef ZEV_TESTS_MONITORRECORDER_H
#define ZEV_TESTS_MONITORRECORDER_H

#include <QtCore/QString>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/*!
 * Records what a sink plays, and knows when every sample is heard.
 *
 * What a recording stream tells of its own latency does not contain what the server holds back of a monitor
 * so that the sink may rewind. So a stream of ticks is played besides, a short negative pulse every 250 ms:
 * of a playing stream the server knows to the microsecond which sample is heard when, and finding the ticks
 * in the recording ties that to the recorded samples. What else is played must not go below half the pulse's
 * amplitude.
 *
 * Threads: works in a thread of its own; the operations belong to one other.
 * Units: wall-clock microseconds; samples of one channel, 16 bits.
 */
class MonitorRecorder
{
public:
    static constexpr int16_t tick = -28000;

    MonitorRecorder();
    ~MonitorRecorder();

    /*! `latencyMs`: in what portions the sink is to work, which is what the monitor's listeners ask for. */
    bool start(const QString &sink, int rate, int latencyMs);
    void stop();

    // After stop().

    const std::vector<int16_t> &samples() const;
    /*!
     * When a recorded sample is heard; 0 when it is not known: no ticks around it, or they do not fit each
     * other because the recorder or the sink lost time between them.
     */
    double heardAt(size_t index) const;
    /*! How far the server's accounts of the ticks are from each other: nine tenths of them. */
    double spreadUs() const;
    int ticks() const;

private:
    struct Streams;
    std::unique_ptr<Streams> streams;
};

#endif
