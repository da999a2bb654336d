// On a store of its own that only unlocks: what counts is who holds what, and until when.
#include "sources/lockedframes.h"

#include <QtCore/QSet>
#include <QtTest/QtTest>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

struct shm_reader
{
    std::atomic<bool> isOpen{true};
    std::atomic<int> unlocked{0};
};

extern "C" void shm_reader_unlock_video(shm_reader_t *reader, shm_video_frame_t *frame)
{
    if (!reader->isOpen.load())
        qFatal("a frame was given back through a handle that was closed before");
    ++reader->unlocked;
    frame->planes[0] = nullptr;
}

namespace {

uchar pixels[64];

QSharedPointer<shm_reader_t> handleOf(shm_reader *reader)
{
    reader->isOpen = true;
    reader->unlocked = 0;
    return QSharedPointer<shm_reader_t>(reader, [](shm_reader_t *closed) { closed->isOpen = false; });
}

LockedFrames::Lease lockOne(const LockedFrames::Owner &frames)
{
    LockedFrames::Lease frame = frames->take();
    frame->record.planes[0] = pixels;
    return frame;
}

} // namespace

class tst_LockedFrames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void handleClosesWithTheOwner();
    void handleClosesWithTheLastFrame_data();
    void handleClosesWithTheLastFrame();
    void framesThatAreOutAreCounted();
    void failedLockIsNotGivenBack();
    void recordsAreZeroWhenTaken();
    void usedBufferIsAsNew();
    void noTwoFramesShareARecord();
    void recordAloneGivesTheLockBack();
    void framesGoInOtherThreads();
    void ownerAndLastFrameGoAtOnce();

private:
    shm_reader store;
};

void tst_LockedFrames::handleClosesWithTheOwner()
{
    LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    QVERIFY(store.isOpen);
    lockOne(frames).reset();
    QCOMPARE(store.unlocked.load(), 1);
    QVERIFY(store.isOpen); // the owner may lock again
    frames.reset();
    QVERIFY(!store.isOpen);
}

void tst_LockedFrames::framesThatAreOutAreCounted()
{
    const LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    QCOMPARE(frames->outCount(), 0);
    std::vector<LockedFrames::Lease> held;
    for (int i = 1; i <= LockedFrames::pooledCount + 3; ++i) {
        held.push_back(lockOne(frames));
        QCOMPARE(frames->outCount(), i);
    }
    frames->take().reset(); // in vain
    QCOMPARE(frames->outCount(), LockedFrames::pooledCount + 3);
    const LockedFrames::Record record = LockedFrames::recordOf(std::move(held.back()));
    held.pop_back();
    QCOMPARE(frames->outCount(), LockedFrames::pooledCount + 3);
    held.clear();
    QCOMPARE(frames->outCount(), 1);
}

void tst_LockedFrames::handleClosesWithTheLastFrame_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("one") << 1;
    QTest::newRow("all that are kept") << LockedFrames::pooledCount;
    QTest::newRow("more than are kept") << LockedFrames::pooledCount + 3;
}

void tst_LockedFrames::handleClosesWithTheLastFrame()
{
    QFETCH(int, count);
    for (int last = 0; last < count; ++last) {
        LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
        std::vector<LockedFrames::Lease> held;
        for (int i = 0; i < count; ++i)
            held.push_back(lockOne(frames));
        frames.reset();
        for (int i = 0; i < count; ++i) {
            if (i != last)
                held[static_cast<size_t>(i)].reset();
        }
        QVERIFY(store.isOpen);
        QCOMPARE(store.unlocked.load(), count - 1);
        held[static_cast<size_t>(last)].reset();
        QCOMPARE(store.unlocked.load(), count);
        QVERIFY(!store.isOpen);
    }
}

void tst_LockedFrames::failedLockIsNotGivenBack()
{
    LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    for (int i = 0; i < 3 * LockedFrames::pooledCount; ++i)
        frames->take().reset();
    QCOMPARE(store.unlocked.load(), 0);
}

void tst_LockedFrames::recordsAreZeroWhenTaken()
{
    const shm_video_frame_t zero = {};
    LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    for (int round = 0; round < 2; ++round) {
        std::vector<LockedFrames::Lease> held;
        for (int i = 0; i < LockedFrames::pooledCount + 2; ++i) {
            held.push_back(frames->take());
            shm_video_frame_t &record = held.back()->record;
            QCOMPARE(memcmp(&record, &zero, sizeof zero), 0);
            memset(static_cast<void *>(&record), 0x5a, sizeof record);
            record.planes[0] = nullptr;
        }
    }
}

void tst_LockedFrames::usedBufferIsAsNew()
{
    LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    const ShmemVideoBuffer *first = nullptr;
    {
        const LockedFrames::Lease frame = lockOne(frames);
        first = frame.get();
        frame->wrap(SHM_PIXEL_FORMAT_NV12);
        frame->setNoDmabufReason(QStringLiteral("no device"));
        int bytesPerLine[4];
        uchar *data[4];
        QCOMPARE(frame->map(QAbstractVideoBuffer::ReadWrite, nullptr, bytesPerLine, data), 1);
        QCOMPARE(data[0], static_cast<uchar *>(pixels));
        QCOMPARE(frame->format(), QVideoFrame::Format_NV12);
        QCOMPARE(frame->lockedFrame(), &frame->record);
        // Released mapped, as by an application that forgot.
    }
    QCOMPARE(store.unlocked.load(), 1);
    const LockedFrames::Lease again = lockOne(frames);
    QCOMPARE(static_cast<const ShmemVideoBuffer *>(again.get()), first); // it is used again
    QVERIFY(!again->lockedFrame());                                      // until it is wrapped
    QCOMPARE(again->mapMode(), QAbstractVideoBuffer::NotMapped);
    QCOMPARE(again->format(), QVideoFrame::Format_Invalid);
    QCOMPARE(again->noDmabufReason(), QString());
}

void tst_LockedFrames::noTwoFramesShareARecord()
{
    LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    std::vector<LockedFrames::Lease> held;
    QSet<const void *> records;
    // Gaps in between, as a consumer makes them that keeps every third frame.
    for (int i = 0; i < 4 * LockedFrames::pooledCount; ++i) {
        LockedFrames::Lease frame = lockOne(frames);
        QVERIFY(!records.contains(&frame->record));
        if (i % 3 == 0) {
            records.insert(&frame->record);
            held.push_back(std::move(frame));
        }
    }
}

void tst_LockedFrames::recordAloneGivesTheLockBack()
{
    LockedFrames::Owner frames = LockedFrames::create(handleOf(&store));
    LockedFrames::Lease frame = lockOne(frames);
    const shm_video_frame_t *address = &frame->record;
    LockedFrames::Record record = LockedFrames::recordOf(std::move(frame));
    QVERIFY(!frame);
    QCOMPARE(record.get(), address);
    frames.reset();
    QVERIFY(store.isOpen);
    record.reset();
    QCOMPARE(store.unlocked.load(), 1);
    QVERIFY(!store.isOpen);
}

// Frames are taken here and released there, as the tick thread and a renderer do it, while the owner changes.
void tst_LockedFrames::framesGoInOtherThreads()
{
    const int rounds = 200;
    const int framesARound = 50;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<LockedFrames::Lease> queue;
    bool isOver = false;
    const auto consume = [&] {
        while (true) {
            std::vector<LockedFrames::Lease> taken;
            {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return isOver || !queue.empty(); });
                if (queue.empty())
                    return;
                taken.push_back(std::move(queue.back()));
                queue.pop_back();
            }
            // Without the lock, so that releases meet each other, taking, and the owner's end.
            if (taken.front()->record.width != 640)
                qFatal("a record was given out twice");
            taken.clear();
        }
    };
    std::thread one(consume);
    std::thread two(consume);
    std::vector<std::unique_ptr<shm_reader>> stores;
    for (int round = 0; round < rounds; ++round) {
        stores.push_back(std::make_unique<shm_reader>());
        LockedFrames::Owner frames = LockedFrames::create(handleOf(stores.back().get()));
        for (int i = 0; i < framesARound; ++i) {
            LockedFrames::Lease frame = lockOne(frames);
            frame->record.width = 640;
            const std::lock_guard<std::mutex> lock(mutex);
            queue.push_back(std::move(frame));
            changed.notify_one();
        }
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        isOver = true;
    }
    changed.notify_all();
    one.join();
    two.join();
    for (const std::unique_ptr<shm_reader> &each : stores) {
        QCOMPARE(each->unlocked.load(), framesARound);
        QVERIFY(!each->isOpen);
    }
}

// Whichever is last closes the handle, once. In long rows, started together, so that they do meet.
void tst_LockedFrames::ownerAndLastFrameGoAtOnce()
{
    const size_t length = 2000;
    for (int row = 0; row < 20; ++row) {
        const std::unique_ptr<shm_reader[]> stores(new shm_reader[length]);
        std::vector<LockedFrames::Owner> owners;
        std::vector<LockedFrames::Lease> held;
        for (size_t i = 0; i < length; ++i) {
            owners.push_back(LockedFrames::create(handleOf(&stores[i])));
            held.push_back(lockOne(owners.back()));
        }
        std::atomic<int> ready{0};
        const auto meet = [&ready] {
            ++ready;
            while (ready.load() < 2)
                std::this_thread::yield();
        };
        std::thread consumer([&] {
            meet();
            for (LockedFrames::Lease &frame : held)
                frame.reset();
        });
        meet();
        for (LockedFrames::Owner &owner : owners)
            owner.reset();
        consumer.join();
        for (size_t i = 0; i < length; ++i) {
            QCOMPARE(stores[i].unlocked.load(), 1);
            QVERIFY(!stores[i].isOpen);
        }
    }
}

QTEST_APPLESS_MAIN(tst_LockedFrames)

#include "tst_lockedframes.moc"
