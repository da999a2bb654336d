#ifndef ZEVQTMM_LOCKEDFRAMES_H
#define ZEVQTMM_LOCKEDFRAMES_H

#include "sources/shmemvideobuffer.h"

#include <QtCore/QSharedPointer>
#include <QtCore/QtGlobal>

#include <array>
#include <atomic>
#include <functional>
#include <memory>

/*!
 * The frames that are locked through one handle of the store, and the handle, which stays open until the last
 * of them has been released. Their records and buffers are used again: a frame is many small objects, and to
 * allocate them costs more than to lock it.
 *
 * Usage: create() once a handle is open; take() a frame, lock into its record, hand out its buffer.
 *
 * Threads: create(), take() and the end of an Owner by one thread at a time; frames are released in any
 * thread, beside any call.
 *
 * Ownership: holds a reference to the handle. Lives until its Owner and all frames have gone, whichever is
 * last.
 *
 * Cost: no allocation and one locked instruction a frame, that of its release, while no more than pooledCount
 * are out; beyond that, allocations.
 */
class LockedFrames
{
    struct Retire
    {
        void operator()(LockedFrames *frames) const { frames->retire(); }
    };
    struct Release
    {
        void operator()(QAbstractVideoBuffer *buffer) const { buffer->release(); }
    };

public:
    using Owner = std::unique_ptr<LockedFrames, Retire>;

    /*! As many as the store lets a reader lock at once that does not ask for more. */
    static constexpr int pooledCount = 8;

    /*! A record, and the buffer that hands out its planes. */
    class Frame final : public ShmemVideoBuffer
    {
    public:
        Frame();
        /*! Unlocks the record if it is locked, and may be taken again from then on. */
        void release() override;
        /*! From now on the buffer shows the record. */
        void wrap(SHM_PIXEL_FORMAT format) { setFrame(format, &record); }

        alignas(64) shm_video_frame_t record; // all zero when taken; two cache lines, not three

    private:
        friend class LockedFrames;

        LockedFrames *home;
        bool isPooled;
        std::atomic<bool> isOut;
    };
    using Lease = std::unique_ptr<Frame, Release>;
    using Record = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

    static Owner create(const QSharedPointer<shm_reader_t> &handle);

    /*! Frames that have not come back. In the thread that takes them. */
    int outCount() const;
    /*! Give the frame to a QVideoFrame, or let the lease end. */
    Lease take();
    /*! The record alone, for another kind of buffer. */
    static Record recordOf(Lease lease);

private:
    explicit LockedFrames(const QSharedPointer<shm_reader_t> &handle);
    ~LockedFrames() = default;
    Q_DISABLE_COPY(LockedFrames)

    void retire();

    const QSharedPointer<shm_reader_t> handle;
    // All zero. Copied instead of clearing a record, of which GCC makes a string instruction (rep stos) that
    // takes 9 ns where the copy takes 4 (GCC 12, Xeon at 2.5 GHz).
    const shm_video_frame_t blank;
    std::array<Frame, pooledCount> frames;
    qint64 taken; // ever; one thread at a time
    // What keeps this alive: `ownersShare` less the frames that came back, and from retire() on the frames
    // still out. In two halves, so that taking a frame is a plain addition.
    std::atomic<qint64> uses;
};

#endif
