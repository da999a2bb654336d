// A source that can be told other URLs, on real stores and a virtual display.

#include "livesource.h"
#include "livevideo.h"
#include "qmltypes.h"
#include "scenegraph_testing.h"
#include "storepublisher.h"

#include <zevqt-mm/mediaprovider.h>

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QTemporaryDir>

#include <cmath>
#include <memory>

namespace {

bool near(QRgb pixel, QColor color)
{
    return std::abs(qRed(pixel) - color.red()) <= 6 && std::abs(qGreen(pixel) - color.green()) <= 6 &&
           std::abs(qBlue(pixel) - color.blue()) <= 6;
}

QUrl store(const char *name)
{
    return QUrl(QStringLiteral("shm:///%1").arg(QLatin1String(name)));
}

class LiveSourceTest : public testing::Test
{
protected:
    LiveSourceTest() : window(makeWindow()), item(new LiveVideo)
    {
        window->setColor(Qt::green); // what is below the item
        item->setParentItem(window->contentItem());
        item->setSize(window->size());
        source.setNoSignalDelay(1);
        item->setSource(&source);
    }
    ~LiveSourceTest() override { delete item; }

    QRgb middle()
    {
        const QImage shot = window->grabWindow();
        return shot.isNull() ? 0u : shot.pixel(shot.width() / 2, shot.height() / 2);
    }
    testing::AssertionResult showsSoon(QColor color)
    {
        QRgb last = 0;
        if (waitUntil([&] { return near(last = middle(), color); }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << std::hex << last << " instead of " << color.rgb();
    }
    testing::AssertionResult isSoon(LiveSource::State state)
    {
        if (waitUntil([&] { return source.state() == state; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "state " << source.state() << ", " << source.errorString().toStdString();
    }
    // Its errorString has this; an empty one: is empty.
    testing::AssertionResult says(const char *part)
    {
        const QString text = QString::fromUtf8(part);
        const auto isSaid = [&] {
            return text.isEmpty() ? source.errorString().isEmpty() : source.errorString().contains(text);
        };
        if (waitUntil(isSaid))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "it says '" << source.errorString().toStdString() << "'";
    }
    static QElapsedTimer startedTimer()
    {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }
    // The store goes on meanwhile.
    bool wait(const StorePublisher &publisher, quint64 frames)
    {
        const quint64 until = publisher.published() + frames;
        return waitUntil([&] { return publisher.published() >= until; });
    }
    // A yellow picture in a file.
    QUrl standIn()
    {
        QImage picture(64, 32, QImage::Format_RGB32);
        picture.fill(Qt::yellow);
        const QString path = folder.filePath("none.png");
        EXPECT_TRUE(picture.save(path));
        return QUrl::fromLocalFile(path);
    }

    const QTemporaryDir folder;
    LiveSource source;
    std::unique_ptr<QQuickWindow> window;
    LiveVideo *item; // this fixture's: a window owns none that is only shown in it
};

TEST_F(LiveSourceTest, withoutAUrlThereIsNoSource)
{
    EXPECT_EQ(source.state(), LiveSource::NoSource);
    EXPECT_TRUE(source.errorString().isEmpty());
    EXPECT_EQ(source.videoSize(), QSize(0, 0));
    EXPECT_EQ(source.provider(), nullptr);
    EXPECT_EQ(item->source(), &source);
    EXPECT_TRUE(showsSoon(Qt::green));
}

TEST_F(LiveSourceTest, showsAStore)
{
    const StorePublisher red("red", Qt::red);
    source.setVideo(store("red"));
    EXPECT_TRUE(showsSoon(Qt::red));
    EXPECT_TRUE(isSoon(LiveSource::Live));
    EXPECT_EQ(source.videoSize(), QSize(64, 32));
    EXPECT_TRUE(source.errorString().isEmpty());
}

TEST_F(LiveSourceTest, anotherUrlIsFollowedAlsoABadOneAndBack)
{
    const StorePublisher red("red", Qt::red);
    const StorePublisher blue("blue", Qt::blue, QSize(128, 64));
    int states = 0;
    QObject::connect(&source, &LiveSource::stateChanged, [&] { ++states; });
    source.setVideo(store("red"));
    EXPECT_TRUE(showsSoon(Qt::red));
    source.setVideo(store("blue"));
    EXPECT_TRUE(showsSoon(Qt::blue));
    EXPECT_EQ(source.videoSize(), QSize(128, 64));

    source.setVideo(QUrl("http://example.com/x"));
    EXPECT_TRUE(isSoon(LiveSource::NoSource));
    EXPECT_TRUE(source.errorString().contains("http")) << source.errorString().toStdString();
    EXPECT_TRUE(source.errorString().contains("shm:///NAME"));
    EXPECT_EQ(source.provider(), nullptr);
    EXPECT_EQ(source.videoSize(), QSize(0, 0));
    EXPECT_TRUE(showsSoon(Qt::green));

    source.setVideo(QUrl("demo"));
    EXPECT_TRUE(waitUntil([&] { return source.errorString().contains("scheme"); }));
    EXPECT_EQ(source.state(), LiveSource::NoSource);

    source.setVideo(store("nosuchstore"));
    EXPECT_TRUE(waitUntil([&] { return source.errorString().contains("nosuchstore"); }))
        << source.errorString().toStdString();
    EXPECT_TRUE(isSoon(LiveSource::NoSignal));

    source.setVideo(store("red"));
    EXPECT_TRUE(showsSoon(Qt::red));
    EXPECT_TRUE(isSoon(LiveSource::Live));
    EXPECT_TRUE(source.errorString().isEmpty());
    EXPECT_GE(states, 5);

    source.setVideo(QUrl());
    EXPECT_TRUE(isSoon(LiveSource::NoSource));
    EXPECT_TRUE(source.errorString().isEmpty());
}

TEST_F(LiveSourceTest, aStoreThatComesLaterIsFound)
{
    source.setVideo(store("late"));
    EXPECT_TRUE(isSoon(LiveSource::NoSignal));
    const StorePublisher late("late", Qt::red);
    EXPECT_TRUE(isSoon(LiveSource::Live));
    EXPECT_TRUE(showsSoon(Qt::red));
}

TEST_F(LiveSourceTest, whyItIsIdleIsSaid)
{
    source.setNoSignalDelay(100000);
    auto red = std::make_unique<StorePublisher>("red", Qt::red);
    source.setVideo(store("red"));
    ASSERT_TRUE(isSoon(LiveSource::Live));
    red->setPaused(true);
    ASSERT_TRUE(isSoon(LiveSource::Idle));
    EXPECT_TRUE(says("store \"red\" is there and publishes no new pictures"));
    red->setPaused(false);
    EXPECT_TRUE(isSoon(LiveSource::Live));
    EXPECT_TRUE(says(""));
    red.reset();
    ASSERT_TRUE(isSoon(LiveSource::Idle));
    EXPECT_TRUE(says("no store \"red\""));
}

TEST_F(LiveSourceTest, soundThatIsMissingBesideAPictureIsSaid)
{
    const StorePublisher red("red", Qt::red);
    source.setVideo(store("red"));
    source.setAudio(store("voice"));
    ASSERT_TRUE(isSoon(LiveSource::Live));
    EXPECT_TRUE(says("no store \"voice\""));
    {
        StorePublisher voice("voice", Qt::blue, QSize(0, 0));
        EXPECT_TRUE(says(""));
        voice.setPaused(true);
        EXPECT_TRUE(says("store \"voice\" is there and publishes no new sound"));
    }
    const StorePublisher mute("voice", Qt::blue, QSize(64, 32), false);
    EXPECT_TRUE(says("store \"voice\" carries no sound"));
    EXPECT_TRUE(source.errorString().contains("LiveSource.audio")) << source.errorString().toStdString();
    EXPECT_EQ(source.state(), LiveSource::Live);
}

TEST_F(LiveSourceTest, aStoreOfSoundAloneIsNoPictureAndTheRemedyIsOfQml)
{
    const StorePublisher voice("voice", Qt::red, QSize(0, 0));
    ASSERT_TRUE(voice.isOpen());
    source.setVideo(store("voice"));
    EXPECT_TRUE(says("carries sound only"));
    EXPECT_TRUE(source.errorString().contains("LiveSource.audio")) << source.errorString().toStdString();
    EXPECT_FALSE(source.errorString().contains("--")) << source.errorString().toStdString();
}

// Nothing is to be seen of it, so nobody shows it.
TEST_F(LiveSourceTest, aSourceOfSoundAloneTellsOfItself)
{
    item->setSource(nullptr);
    int looks = 0;
    QObject::connect(&source, &LiveSource::statisticsChanged, [&] { ++looks; });
    source.setAudio(store("voice"));
    EXPECT_TRUE(says("no store \"voice\""));
    const StorePublisher voice("voice", Qt::red, QSize(0, 0));
    EXPECT_TRUE(says(""));
    EXPECT_EQ(source.state(), LiveSource::Waiting);
    const int before = looks;
    EXPECT_TRUE(waitUntil([&] { return looks > before + 2; }));
    source.setRunning(false);
    ASSERT_TRUE(waitUntil([&] { return !source.provider()->running(); }));
    const int after = looks;
    ASSERT_TRUE(waitUntil([timer = startedTimer()] { return timer.hasExpired(1200); }));
    EXPECT_EQ(looks, after);
}

TEST_F(LiveSourceTest, severalChangesAtOnceAreOne)
{
    int changes = 0;
    QObject::connect(&source, &LiveSource::providerChanged, [&] { ++changes; });
    source.setVideo(store("a"));
    source.setAudio(store("b"));
    source.setVideo(store("c"));
    EXPECT_TRUE(waitUntil([&] { return source.provider() != nullptr; }));
    EXPECT_EQ(changes, 1);
    ASSERT_TRUE(source.provider()->getAudioSource());
    EXPECT_EQ(source.provider()->getAudioSource()->name(), "b");
    EXPECT_EQ(source.provider()->getVideoSource()->name(), "c");
}

TEST_F(LiveSourceTest, whatDoesNotRunAsksForNothing)
{
    const StorePublisher red("red", Qt::red);
    source.setVideo(store("red"));
    ASSERT_TRUE(isSoon(LiveSource::Live));
    source.setRunning(false);
    ASSERT_TRUE(waitUntil([&] { return !source.provider()->running(); }));
    EXPECT_TRUE(isSoon(LiveSource::Waiting));
    const quint64 before = source.statistics().frames + source.statistics().unanswered;
    ASSERT_TRUE(wait(red, 12));
    EXPECT_EQ(source.statistics().frames + source.statistics().unanswered, before);

    source.setRunning(true);
    EXPECT_TRUE(isSoon(LiveSource::Live));
    EXPECT_EQ(source.statistics().skipped, 0u); // nobody wanted what came meanwhile
}

class LiveSourceHidden : public LiveSourceTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(publisher.isOpen());
        source.setVideo(store("red"));
        ASSERT_TRUE(showsSoon(Qt::red));
        ASSERT_TRUE(waitUntil([&] { return publisher.locksHeld() > 0; }));
    }
    // No frame is locked, and none is asked for.
    void expectNothingIsDone()
    {
        ASSERT_TRUE(waitUntil([&] { return !source.provider()->running(); }));
        ASSERT_TRUE(wait(publisher, 5)); // the writer counts ten times a second
        EXPECT_TRUE(waitUntil([&] { return publisher.locksHeld() == 0; })) << publisher.locksHeld();
        const LiveStatistics before = source.statistics();
        EXPECT_EQ(before.locksHeld, 0);
        ASSERT_TRUE(wait(publisher, 12));
        EXPECT_EQ(source.statistics().frames, before.frames);
        EXPECT_EQ(source.statistics().unanswered, before.unanswered);
        EXPECT_EQ(publisher.locksHeld(), 0);
    }

    const StorePublisher publisher{"red", Qt::red};
};

TEST_F(LiveSourceHidden, anItemLocksAndUploadsNothing)
{
    item->setVisible(false);
    expectNothingIsDone();
    EXPECT_EQ(item->videoSize(), QSize(0, 0));
    EXPECT_TRUE(near(middle(), Qt::green));
    item->setVisible(true);
    EXPECT_TRUE(showsSoon(Qt::red));
    EXPECT_TRUE(isSoon(LiveSource::Live));
}

TEST_F(LiveSourceHidden, neitherDoesAnItemInAHiddenWindow)
{
    window->hide();
    expectNothingIsDone();
    window->show();
    ASSERT_TRUE(waitUntil([&] { return window->isExposed(); }));
    EXPECT_TRUE(showsSoon(Qt::red));
}

TEST_F(LiveSourceHidden, neitherDoesOneThatIsInNoWindow)
{
    item->setParentItem(nullptr);
    expectNothingIsDone();
    item->setParentItem(window->contentItem());
    EXPECT_TRUE(showsSoon(Qt::red));
}

TEST_F(LiveSourceHidden, norDoesOneWhoseSourceIsToldNotToRun)
{
    source.setRunning(false);
    expectNothingIsDone();
    EXPECT_EQ(item->videoState(), LiveVideo::Waiting);
    EXPECT_EQ(item->videoSize(), QSize(0, 0));
    EXPECT_TRUE(near(middle(), Qt::green));
    source.setRunning(true);
    EXPECT_TRUE(showsSoon(Qt::red));
}

TEST_F(LiveSourceHidden, nothingIsDoneForNobody)
{
    delete item;
    item = nullptr;
    expectNothingIsDone();
}

TEST_F(LiveSourceHidden, oneOfTwoIsEnough)
{
    const auto second = std::make_unique<LiveVideo>();
    second->setParentItem(window->contentItem());
    second->setSize(QSizeF(20, 20));
    second->setSource(&source);
    item->setVisible(false);
    const quint64 before = source.statistics().frames;
    EXPECT_TRUE(waitUntil([&] { return source.statistics().frames > before + 3; }));
    EXPECT_TRUE(source.provider()->running());
    second->setSource(nullptr);
    expectNothingIsDone();
}

struct Policy
{
    LiveVideo::NoSignalPolicy policy;
    Qt::GlobalColor expected;
    const char *name;
};
class LiveSourcePolicies : public LiveSourceTest, public testing::WithParamInterface<Policy>
{};

TEST_P(LiveSourcePolicies, decidesWhatIsShownWithoutASignal)
{
    source.setNoSignalImage(standIn());
    item->setFillMode(LiveVideo::Stretch);
    item->setNoSignalPolicy(GetParam().policy);
    {
        const StorePublisher red("red", Qt::red);
        source.setVideo(store("red"));
        ASSERT_TRUE(showsSoon(Qt::red));
    }
    ASSERT_TRUE(isSoon(LiveSource::NoSignal));
    EXPECT_TRUE(showsSoon(GetParam().expected));
    EXPECT_EQ(item->videoState(), LiveVideo::NoSignal);
    // Some ticks later still.
    const quint64 before = source.statistics().noSignal;
    ASSERT_TRUE(waitUntil([&] { return source.statistics().noSignal > before + 5; }));
    EXPECT_TRUE(near(middle(), GetParam().expected));
    EXPECT_EQ(item->videoSize().isEmpty(),
              GetParam().policy == LiveVideo::Black || GetParam().policy == LiveVideo::Transparent);

    const StorePublisher again("red", Qt::blue);
    EXPECT_TRUE(showsSoon(Qt::blue));
    EXPECT_TRUE(isSoon(LiveSource::Live));
}

INSTANTIATE_TEST_SUITE_P(Policies, LiveSourcePolicies,
                         testing::Values(Policy{LiveVideo::Picture, Qt::yellow, "picture"},
                                         Policy{LiveVideo::HoldLast, Qt::red, "holdLast"},
                                         Policy{LiveVideo::Black, Qt::black, "black"},
                                         Policy{LiveVideo::Transparent, Qt::green, "transparent"}),
                         [](const auto &test) { return test.param.name; });

TEST_F(LiveSourceTest, thePolicyMayChangeWhileThereIsNoSignal)
{
    source.setNoSignalImage(standIn());
    item->setFillMode(LiveVideo::Stretch);
    source.setVideo(store("nosuchstore"));
    ASSERT_TRUE(showsSoon(Qt::yellow));
    item->setNoSignalPolicy(LiveVideo::Black);
    EXPECT_TRUE(showsSoon(Qt::black));
    item->setNoSignalPolicy(LiveVideo::Transparent);
    EXPECT_TRUE(showsSoon(Qt::green));
    item->setNoSignalPolicy(LiveVideo::Picture);
    EXPECT_TRUE(showsSoon(Qt::yellow));
    item->setNoSignalPolicy(LiveVideo::HoldLast); // there is none: what stands in is no picture of the source
    EXPECT_TRUE(showsSoon(Qt::green));
}

TEST_F(LiveSourceTest, theDelayIsTheApplications)
{
    source.setNoSignalDelay(100000);
    source.setNoSignalImage(standIn());
    source.setVideo(store("nosuchstore"));
    ASSERT_TRUE(waitUntil([&] { return source.statistics().unansweredBeforeFirst > 10; }));
    EXPECT_EQ(source.state(), LiveSource::Waiting);
    EXPECT_TRUE(near(middle(), Qt::green));
    source.setNoSignalDelay(0);
    EXPECT_TRUE(isSoon(LiveSource::NoSignal));
    EXPECT_TRUE(showsSoon(Qt::yellow));
}

TEST_F(LiveSourceTest, statisticsAreASnapshot)
{
    const StorePublisher red("red", Qt::red);
    source.setVideo(store("red"));
    ASSERT_TRUE(showsSoon(Qt::red));
    ASSERT_TRUE(waitUntil([&] { return source.statistics().frames > 30; }));
    ASSERT_TRUE(waitUntil([&] { return source.statistics().framePath != "none"; }));
    const LiveStatistics now = source.statistics();
    EXPECT_NEAR(now.sourceRate, 25.0, 3.0);
    EXPECT_GT(now.shownRate, 5.0);
    EXPECT_EQ(now.frames, now.distinct + now.repeated);
    EXPECT_GT(now.ageP50Ms, 0.0);
    EXPECT_LE(now.ageP50Ms, now.ageP99Ms);
    EXPECT_LE(now.ageP99Ms, now.ageMaxMs + 0.1);
    EXPECT_GE(now.jitterMs, 0.0);
    EXPECT_GE(now.locksHeld, 1);
    EXPECT_EQ(now.size, QSize(64, 32));
    EXPECT_EQ(now.pixelFormat, "nv12");
    EXPECT_TRUE(std::isnan(now.avOffsetMs));
    EXPECT_GE(source.property("statistics").value<LiveStatistics>().frames, now.frames);
    ASSERT_TRUE(waitUntil([&] {
        return source.statistics().framePath ==
               (withOpenGl() ? QLatin1String("mapped") : QLatin1String("converted"));
    })) << source.statistics().framePath.toStdString();
    EXPECT_EQ(source.statistics().framePathReason, item->framePathReason());
    // Nothing runs between these, so that reading alone would have to change them.
    const LiveStatistics first = source.statistics();
    for (int i = 0; i < 100; ++i)
        source.statistics();
    const LiveStatistics last = source.statistics();
    EXPECT_EQ(first.frames, last.frames);
    EXPECT_EQ(first.skipped, last.skipped);
    EXPECT_EQ(first.ageP99Ms, last.ageP99Ms);
    EXPECT_EQ(first.meanRate, last.meanRate);
}

TEST_F(LiveSourceTest, wrongValuesAreRefused)
{
    source.setFrameRate(-1.0);
    EXPECT_EQ(source.frameRate(), 0.0);
    source.setFrameRate(qQNaN());
    EXPECT_EQ(source.frameRate(), 0.0);
    source.setNoSignalDelay(-1);
    EXPECT_EQ(source.noSignalDelay(), 1);
}

TEST_F(LiveSourceTest, theFrameRateIsTheApplicationsOrTheSources)
{
    const StorePublisher red("red", Qt::red);
    source.setFrameRate(10.0);
    source.setVideo(store("red"));
    ASSERT_TRUE(isSoon(LiveSource::Live));
    EXPECT_EQ(source.statistics().tickRate, 10.0);
    source.setFrameRate(50.0);
    EXPECT_EQ(source.statistics().tickRate, 50.0);
    source.setFrameRate(0.0);
    EXPECT_TRUE(waitUntil([&] { return std::abs(source.statistics().tickRate - 25.0) < 2.0; }))
        << source.statistics().tickRate;
}

TEST(LiveSourceQml, isMadeInQml)
{
    const StorePublisher red("red", Qt::red);
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import QtQuick 2.15\n"
                      "import ZevQt.Multimedia 1.0\n"
                      "LiveVideo {\n"
                      "    readonly property bool live: camera.state === LiveSource.Live\n"
                      "    readonly property real frames: camera.statistics.frames\n"
                      "    readonly property string path: camera.statistics.framePath\n"
                      "    noSignalPolicy: LiveVideo.Black\n"
                      "    source: LiveSource { id: camera; video: 'shm:///red' }\n"
                      "}\n",
                      QUrl("qrc:/inline.qml"));
    ASSERT_FALSE(component.isError()) << component.errorString().toStdString();
    const std::unique_ptr<QObject> made(component.create());
    auto *item = qobject_cast<LiveVideo *>(made.get());
    ASSERT_TRUE(item) << component.errorString().toStdString();
    EXPECT_EQ(item->noSignalPolicy(), LiveVideo::Black);
    EXPECT_FALSE(item->property("live").toBool()); // nobody sees it yet
    const auto window = makeWindow();
    item->setSize(window->size());
    item->setParentItem(window->contentItem());
    EXPECT_TRUE(waitUntil([&] { return item->property("live").toBool(); }));
    EXPECT_TRUE(waitUntil([&] { return item->property("frames").toReal() > 10; }));
    EXPECT_TRUE(waitUntil([&] { return item->property("path").toString() != "none"; }));
    item->setParentItem(nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    const QTemporaryDir stores;
    qputenv("ZEV_SHM_DIR", stores.path().toLocal8Bit());
    qputenv("QT_XCB_GL_INTEGRATION", "xcb_glx");
    zevqml::registerStaticQmlTypes();
    return runOnDisplay(argc, argv);
}
