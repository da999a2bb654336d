#include "readpointwatch.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 start = 1700000000000000;

// A source of 25 frames a second, looked at every half second.
struct Looks
{
    ReadPointWatch watch;
    quint64 pictures = 0;
    quint64 empty = 0;
    qint64 newest = start;

    bool look(quint64 morePictures, quint64 moreEmpty, qint64 later)
    {
        return watch.look(pictures += morePictures, empty += moreEmpty, newest += later);
    }
};

} // namespace

TEST(ReadPointWatch, picturesAreInOrderHoweverFew)
{
    Looks l;
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(l.look(1, 11, 500000));
}

TEST(ReadPointWatch, aSourceThatPublishesWhereNobodyLooksIsNoticedTheSecondTime)
{
    Looks l;
    EXPECT_FALSE(l.look(12, 0, 500000));
    EXPECT_FALSE(l.look(3, 9, 3500000)); // it jumps
    EXPECT_FALSE(l.look(0, 12, 500000));
    EXPECT_TRUE(l.look(0, 12, 500000));
    EXPECT_FALSE(l.look(0, 12, 500000)); // what was done about it takes its time
    EXPECT_TRUE(l.look(0, 12, 500000));
    EXPECT_FALSE(l.look(12, 0, 500000));
}

TEST(ReadPointWatch, aSourceThatIsSilentOrGoneIsNotLookedFor)
{
    Looks silent;
    EXPECT_FALSE(silent.look(12, 0, 500000));
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(silent.look(0, 12, 0));
    ReadPointWatch gone;
    for (quint64 i = 0; i < 10; ++i)
        EXPECT_FALSE(gone.look(5, 12 * i, 0));
    // It comes back: its first frames are on their way.
    EXPECT_FALSE(gone.look(5, 121, start));
    EXPECT_FALSE(gone.look(5, 133, start + 500000));
    EXPECT_FALSE(gone.look(17, 133, start + 1000000));
}

TEST(ReadPointWatch, requestsThatWereNotMadeSayNothing)
{
    Looks blocked;
    EXPECT_FALSE(blocked.look(12, 0, 500000));
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(blocked.look(0, 0, 500000));
}
