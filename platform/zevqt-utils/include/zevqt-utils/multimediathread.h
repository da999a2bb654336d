#ifndef ZEVQT_UTILS_MULTIMEDIATHREAD_H
#define ZEVQT_UTILS_MULTIMEDIATHREAD_H

#include <QObject>
#include <memory>

/* Seen outside of the library. */
#if defined(ZEVQT_UTILS_BUILD)
#define ZEVQT_UTILS_EXPORT Q_DECL_EXPORT
#else
#define ZEVQT_UTILS_EXPORT Q_DECL_IMPORT
#endif

class TickThread;

/*
 * Emits tick() at a steady rate from a thread of its own.
 *
 * Usage: connect tick() with Qt::DirectConnection to what is to run in the tick thread, name the object,
 * start(), and stop() before what the handlers use goes away.
 *
 *     thread.setObjectName("VT camera");
 *     thread.start(1001, 30000, 0); // every 1001/30000 s: 29.97 ticks a second
 *
 * Tick n is due at start + phase + n * numerator / denominator seconds, so nothing adds up over the years. Of
 * the ticks that are already due only the newest is emitted:
 *
 *     due       0     1     2     3     4     5
 *     -----------|-----|-----|-----|-----|-----|--->
 *     emitted    0     1................4     5      (the handler of 1, or the machine, took three intervals;
 *                                                     2 and 3 are skipped, 4 follows at once, 5 is on time
 * again)
 *
 * Threads: start(), stop() and the destructor are thread-safe against each other and against the tick thread,
 * and may be called from a tick handler; all else as QObject. The thread bears the object's name as it is at
 * start(), cut to the kernel's 15 bytes at a character's boundary. It asks for real-time priority and carries
 * on without it. Ownership: owns its thread. The destructor stops it. Units: intervals in seconds as a
 * fraction, phase in microseconds, waiting in milliseconds; monotonic clock. Errors: an interval that is not
 * positive, or a thread that cannot be created, gives no ticks and one warning. Cost: start() creates a
 * thread (none when it is running already) and does not wait for it. Between two ticks the thread sleeps in
 * the kernel; a tick allocates nothing and takes no lock. Intervals shorter than 100 microseconds are taken
 * as 100 microseconds, so that a mistyped rate cannot take a processor away at real-time priority.
 */
class ZEVQT_UTILS_EXPORT MultimediaThread : public QObject
{
    Q_OBJECT

public:
    /* Does not tick yet. */
    explicit MultimediaThread(QObject *parent = nullptr);
    ~MultimediaThread() override;

    /*
     * Begins to tick: at once with `phase` 0, else that many microseconds from now; a negative phase is 0.
     * While it ticks already: the old ticks end and the new ones begin.
     */
    void start(int intervalNumerator, int intervalDenominator, long long phase);

    /*
     * Ends the ticking. Returns when no tick is being emitted any more, however long the interval is, but
     * waits at most `waitMs` for a handler that is still at work; 0 (or less) waits without limit. No tick
     * begins after it returned. From a tick handler it does not wait for itself: the tick that is being
     * emitted is the last.
     */
    void stop(long long waitMs);

Q_SIGNALS:
    /* In the tick thread, by a direct connection. */
    void tick();

private:
    const std::shared_ptr<TickThread> thread;
};

#endif
