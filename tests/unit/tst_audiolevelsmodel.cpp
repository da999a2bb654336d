// The levels of a source's sound as a model, on real stores. Nothing here plays: there is no player at all.

#include "audiolevels.h"
#include "livesource.h"
#include "livevideo.h"
#include "qmltypes.h"
#include "scenegraph_testing.h"
#include "storepublisher.h"

#include <zevqt-mm/mediaprovider.h>

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QTemporaryDir>

#include <cmath>
#include <memory>

namespace {

class AudioLevelsTest : public testing::Test
{
protected:
    AudioLevelsTest() { source.setVideo(QUrl(QStringLiteral("shm:///tone"))); }

    double level(int channel, AudioLevels::Role role) const
    {
        return levels.data(levels.index(channel), role).toDouble();
    }
    // What the publisher sends: -6 dB left, nothing right.
    bool isTheTone() const
    {
        return levels.count() == 2 && std::abs(level(0, AudioLevels::RmsRole) + 6.02) < 0.2 &&
               std::abs(level(0, AudioLevels::PeakRole) + 6.02) < 0.2 &&
               std::abs(level(0, AudioLevels::HoldRole) + 6.02) < 0.2 &&
               level(1, AudioLevels::RmsRole) == -120.0;
    }

    LiveSource source;
    AudioLevels levels;
};

TEST_F(AudioLevelsTest, withoutASourceThereAreNone)
{
    EXPECT_EQ(levels.rowCount(), 0);
    EXPECT_FALSE(levels.data(levels.index(0), AudioLevels::RmsRole).isValid());
}

TEST_F(AudioLevelsTest, aPictureThatNobodySeesHasLevels)
{
    const StorePublisher publisher("tone", Qt::red);
    levels.setSource(&source);
    EXPECT_TRUE(waitUntil([&] { return isTheTone(); })) << levels.count();
    EXPECT_FALSE(source.provider()->running());
    EXPECT_EQ(publisher.locksHeld(), 0);
}

TEST_F(AudioLevelsTest, theyComeWithThePicture)
{
    const StorePublisher publisher("tone", Qt::red);
    const auto window = makeWindow();
    LiveVideo item;
    item.setParentItem(window->contentItem());
    item.setSize(window->size());
    item.setSource(&source);
    levels.setSource(&source);
    EXPECT_TRUE(waitUntil([&] { return isTheTone(); }));
    ASSERT_TRUE(waitUntil([&] { return source.state() == LiveSource::Live; }));
    EXPECT_TRUE(waitUntil([&] { return isTheTone(); }));
}

TEST_F(AudioLevelsTest, aSourceOfSoundAloneHasLevels)
{
    const StorePublisher publisher("tone", Qt::red);
    source.setVideo(QUrl());
    source.setAudio(QUrl(QStringLiteral("shm:///tone")));
    levels.setSource(&source);
    EXPECT_TRUE(waitUntil([&] { return isTheTone(); })) << levels.count();
}

TEST_F(AudioLevelsTest, whatIsNotActiveMeasuresNothing)
{
    const StorePublisher publisher("tone", Qt::red);
    levels.setSource(&source);
    ASSERT_TRUE(waitUntil([&] { return isTheTone(); }));
    levels.setActive(false);
    EXPECT_EQ(levels.count(), 0);
    const quint64 until = publisher.published() + 10;
    ASSERT_TRUE(waitUntil([&] { return publisher.published() >= until; }));
    EXPECT_EQ(levels.count(), 0);
    levels.setActive(true);
    EXPECT_TRUE(waitUntil([&] { return isTheTone(); }));
}

TEST_F(AudioLevelsTest, aSourceThatDoesNotRunIsNotAsked)
{
    const StorePublisher publisher("tone", Qt::red);
    levels.setSource(&source);
    ASSERT_TRUE(waitUntil([&] { return isTheTone(); }));
    source.setRunning(false);
    EXPECT_TRUE(waitUntil([&] { return level(0, AudioLevels::RmsRole) < -60.0; })); // and they fall
}

TEST_F(AudioLevelsTest, theyFallWhenTheSourceIsGoneAndReturnWithIt)
{
    auto publisher = std::make_unique<StorePublisher>("tone", Qt::red);
    levels.setSource(&source);
    ASSERT_TRUE(waitUntil([&] { return isTheTone(); }));
    publisher.reset();
    EXPECT_TRUE(waitUntil([&] { return level(0, AudioLevels::RmsRole) < -60.0; }));
    EXPECT_EQ(levels.count(), 2);
    publisher = std::make_unique<StorePublisher>("tone", Qt::red);
    EXPECT_TRUE(waitUntil([&] { return isTheTone(); }));
}

// A source without sound for ten seconds has no meter.
TEST_F(AudioLevelsTest, theRowsGoAfterTheModelHasSaidSo)
{
    auto publisher = std::make_unique<StorePublisher>("tone", Qt::red);
    levels.setSource(&source);
    ASSERT_TRUE(waitUntil([&] { return isTheTone(); }));
    QVector<int> rows;
    QObject::connect(&levels, &AudioLevels::modelAboutToBeReset, [&] { rows << levels.rowCount(); });
    QObject::connect(&levels, &AudioLevels::modelReset, [&] { rows << levels.rowCount(); });
    publisher.reset();
    ASSERT_TRUE(waitUntil([&] { return levels.count() == 0; }));
    EXPECT_EQ(rows, QVector<int>({2, 0}));
}

TEST_F(AudioLevelsTest, aSourceThatDiesTakesThemWithIt)
{
    const StorePublisher publisher("tone", Qt::red);
    auto other = std::make_unique<LiveSource>();
    other->setVideo(QUrl(QStringLiteral("shm:///tone")));
    levels.setSource(other.get());
    ASSERT_TRUE(waitUntil([&] { return isTheTone(); }));
    int counts = 0;
    QObject::connect(&levels, &AudioLevels::countChanged, [&] { ++counts; });
    other.reset();
    EXPECT_EQ(levels.source(), nullptr);
    EXPECT_EQ(levels.count(), 0);
    EXPECT_EQ(counts, 1);
}

TEST(AudioLevelsQml, aRepeaterHasTheRoles)
{
    const StorePublisher publisher("tone", Qt::red);
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import QtQuick 2.15\n"
                      "import ZevQt.Multimedia 1.0\n"
                      "Item {\n"
                      "    readonly property int channels: levels.count\n"
                      "    readonly property real leftLevel: bars.count > 0 ? bars.itemAt(0).level : 0\n"
                      "    AudioLevels { id: levels; source: LiveSource { video: 'shm:///tone' } }\n"
                      "    Repeater {\n"
                      "        id: bars\n"
                      "        model: levels\n"
                      "        Item { readonly property real level: model.rms + model.peak + model.hold }\n"
                      "    }\n"
                      "}\n",
                      QUrl("qrc:/inline.qml"));
    const std::unique_ptr<QObject> made(component.create());
    ASSERT_TRUE(made) << component.errorString().toStdString();
    EXPECT_TRUE(waitUntil([&] { return made->property("channels").toInt() == 2; }));
    EXPECT_TRUE(waitUntil([&] { return std::abs(made->property("leftLevel").toReal() + 3 * 6.02) < 0.6; }))
        << made->property("leftLevel").toReal();
}

} // namespace

int main(int argc, char **argv)
{
    const QTemporaryDir stores;
    qputenv("ZEV_SHM_DIR", stores.path().toLocal8Bit());
    zevqml::registerStaticQmlTypes();
    return runOnDisplay(argc, argv);
}
