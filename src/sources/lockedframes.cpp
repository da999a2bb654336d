#include "sources/lockedframes.h"

#include <utility>

namespace {

// More frames than ever come back.
constexpr qint64 ownersShare = Q_INT64_C(1) << 62;

} // namespace

LockedFrames::Frame::Frame() : record(), home(nullptr), isPooled(false), isOut(false) {}

void LockedFrames::Frame::release()
{
    LockedFrames *const owner = home;
    if (record.planes[0])
        shm_reader_unlock_video(owner->handle.data(), &record);
    setFrame(SHM_PIXEL_FORMAT_NONE, nullptr);
    if (isPooled)
        isOut.store(false, std::memory_order_release); // somebody else's from here on
    else
        delete this;
    // Last: only this share keeps the pooled frames and the handle from going.
    if (owner->uses.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete owner;
}

LockedFrames::LockedFrames(const QSharedPointer<shm_reader_t> &opened)
    : handle(opened), blank(), taken(0), uses(ownersShare)
{
    for (Frame &frame : frames) {
        frame.home = this;
        frame.isPooled = true;
    }
}

LockedFrames::Owner LockedFrames::create(const QSharedPointer<shm_reader_t> &handle)
{
    return Owner(new LockedFrames(handle));
}

LockedFrames::Lease LockedFrames::take()
{
    for (Frame &frame : frames) {
        // Acquire: whoever released the frame has done with it.
        if (frame.isOut.load(std::memory_order_acquire))
            continue;
        frame.isOut.store(true, std::memory_order_relaxed);
        frame.record = blank;
        ++taken;
        return Lease(&frame);
    }
    auto *frame = new Frame();
    frame->home = this;
    ++taken;
    return Lease(frame);
}

int LockedFrames::outCount() const
{
    return static_cast<int>(taken - (ownersShare - uses.load(std::memory_order_relaxed)));
}

LockedFrames::Record LockedFrames::recordOf(Lease lease)
{
    Frame *const frame = lease.release();
    return Record(&frame->record, [frame](shm_video_frame_t *) { frame->release(); });
}

void LockedFrames::retire()
{
    const qint64 returnedShare = ownersShare - taken;
    if (uses.fetch_sub(returnedShare, std::memory_order_acq_rel) == returnedShare)
        delete this;
}
