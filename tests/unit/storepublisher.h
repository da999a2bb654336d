#ifndef ZEV_TESTS_STOREPUBLISHER_H
#define ZEV_TESTS_STOREPUBLISHER_H

#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <QColor>
#include <QSize>
#include <QString>

#include <atomic>
#include <thread>

/*!
 * Publishes frames of one color and stereo sound (a square wave at -6 dB left, nothing right), 25 a second,
 * from a thread of its own, until it goes. The store's directory is that of the environment.
 */
class StorePublisher
{
public:
    /*! An empty size: sound alone. */
    explicit StorePublisher(const QString &name, const QColor &color, const QSize &size = QSize(64, 32),
                            bool hasSound = true);
    ~StorePublisher();
    StorePublisher(const StorePublisher &) = delete;
    StorePublisher &operator=(const StorePublisher &) = delete;

    bool isOpen() const { return m_writer != nullptr; }
    /*! Lives, and publishes nothing. */
    void setPaused(bool on) { m_isPaused = on; }
    quint64 published() const { return m_published; }
    /*! Frames that readers hold locked, as a reader without any is told. */
    int locksHeld() const;

private:
    void run();

    const QString m_name;
    const QColor m_color;
    const QSize m_size;
    const bool m_hasSound;
    shm_writer_t *m_writer = nullptr;
    shm_reader_t *m_reader = nullptr;
    std::atomic<quint64> m_published{0};
    std::atomic<bool> m_isPaused{false};
    std::atomic<bool> m_isEnding{false};
    std::thread m_thread;
};

#endif
