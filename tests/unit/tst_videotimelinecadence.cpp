// How evenly the timeline shows a source's frames: every usual pair of frame and tick rates, from 16 start
// phases, on a clock of the test's own. Writes every run as a line of CSV (environment ZEV_CADENCE_CSV, else
// cadence.csv in the working folder) and prints the table.
#include "fake_source.h"

#include <zevqt-mm/videotimeline.h>

#include <QtCore/QFile>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

struct Rate
{
    const char *name;
    int numerator;
    int denominator;

    double perSecond() const { return double(numerator) / denominator; }
    double interval() const { return 1000000.0 * denominator / numerator; }
};

const Rate frameRates[] = {
    {"23.976", 24000, 1001}, {"25", 25, 1},          {"29.97", 30000, 1001}, {"30", 30, 1},
    {"50", 50, 1},           {"59.94", 60000, 1001}, {"60", 60, 1}};
const Rate tickRates[] = {{"25", 25, 1}, {"50", 50, 1}, {"59.94", 60000, 1001}, {"60", 60, 1}};

const int phases = 16;
const int settleSeconds = 5; // the warm-up takes two
const int measuredSeconds = 60;
const long long base = 1700000000000000;
const long long publishDelay = 3000; // from a frame's timestamp until readers see it
const int minDepth = 2;              // as the provider has it

/*! Evenly distributed in [-amplitude, amplitude], the same in every run. */
class Noise
{
public:
    explicit Noise(long long amplitude_) : amplitude(amplitude_) {}
    long long next()
    {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return amplitude == 0 ? 0 : (long long)((state >> 33) % quint64(2 * amplitude + 1)) - amplitude;
    }

private:
    long long amplitude;
    quint64 state = 42;
};

struct Run
{
    double distinct = 0; // all per second
    double repeated = 0;
    double skipped = 0;
    int backwards = 0;
    int oddSteps = 0;  // neither of the two steps that the rates' ratio lies between
    int uneven = 0;    // distances of the rarer step that an even cadence does not have
    int shortest = -1; // distance of the rarer step, ticks; -1: it came less than twice
    int longest = -1;
    int moves = 0; // of the read point, after settling
};

// The steps of a rounded line are two neighbouring numbers, and the rarer of them comes at distances that are
// two neighbouring numbers again. Notes what is neither.
void judge(const QVector<long long> &steps, double ratio, Run &run)
{
    const auto low = static_cast<long long>(std::floor(ratio + 1e-9));
    const double fraction = std::max(0.0, ratio - double(low));
    const long long rare = fraction <= 0.5 ? low + 1 : low;
    const double rareShare = fraction <= 0.5 ? fraction : 1 - fraction;
    int last = -1;
    for (int i = 0; i < steps.size(); ++i) {
        const bool isWhole = rareShare < 1e-9; // then there is one step only
        if (steps[i] != low && (isWhole || steps[i] != low + 1))
            ++run.oddSteps;
        if (isWhole || steps[i] != rare)
            continue;
        if (last >= 0) {
            const int distance = i - last;
            run.shortest = run.shortest < 0 ? distance : std::min(run.shortest, distance);
            run.longest = std::max(run.longest, distance);
            if (distance < std::floor(1 / rareShare - 1e-6) || distance > std::ceil(1 / rareShare + 1e-6))
                ++run.uneven;
        }
        last = i;
    }
}

// Within 5 % of a whole ratio, and not on it: the two clocks' phase wanders through every position.
bool drifts(double fps, double tps)
{
    const double ratio = std::max(fps / tps, tps / fps);
    const double off = std::abs(ratio - std::round(ratio));
    return off > 1e-6 && off < 0.05;
}

Run simulate(const Rate &frames, const Rate &ticks, int phase, long long noiseAmplitude)
{
    QSharedPointer<FakeSource> source(new FakeSource);
    VideoTimeline timeline(source, int(ticks.perSecond() * 1000000), 1000000, true, nullptr);
    timeline.setMinDepth(minDepth);
    timeline.start();

    const int seconds = settleSeconds + measuredSeconds;
    Noise noise(noiseAmplitude);
    QVector<long long> stamps;
    const int frameTotal = int((seconds + 3) * frames.perSecond());
    for (int i = 0; i < frameTotal; ++i)
        stamps.append(base - 2000000 + std::llround(i * frames.interval()) + noise.next());
    const int history = std::max(8, int(std::ceil(0.75 * frames.perSecond())));

    source->status.frameInterval = std::llround(frames.interval());
    source->status.jitter =
        std::llround(1.4826 * 0.5 * double(noiseAmplitude)); // half of the amplitude is the MAD

    long long asked = 0;
    QObject::connect(&timeline, &VideoTimeline::tick, [&asked](long long ts) { asked = ts; });

    Run run;
    QVector<long long> steps;
    long long lastShown = -1;
    long long lastOffset = 0;
    int visible = 0;
    const double start = frames.interval() * phase / phases;
    const int tickTotal = int(seconds * ticks.perSecond());
    for (int tick = 0; tick < tickTotal; ++tick) {
        const long long now = base + std::llround(start + tick * ticks.interval()) + noise.next() / 2;
        while (visible < stamps.size() && stamps[visible] + publishDelay <= now)
            ++visible;
        const int first = std::max(0, visible - history);
        source->status.timestamps = stamps.mid(first, visible - first);
        timeline.externalTick(now);

        // The store's look-up: nearest in time.
        const auto next = std::lower_bound(stamps.cbegin() + first, stamps.cbegin() + visible, asked);
        long long shown = next - stamps.cbegin();
        if (shown == visible ||
            (shown > first && asked - stamps[int(shown) - 1] < stamps[int(shown)] - asked))
            --shown;

        if (tick >= settleSeconds * ticks.perSecond()) {
            const long long step = shown - lastShown;
            steps.append(step);
            if (step == 0)
                run.repeated += 1;
            else
                run.distinct += 1;
            if (step > 1)
                run.skipped += double(step - 1);
            if (step < 0)
                ++run.backwards;
            if (timeline.getReadOffset() != lastOffset)
                ++run.moves;
        }
        lastShown = shown;
        lastOffset = timeline.getReadOffset();
    }
    judge(steps, frames.perSecond() / ticks.perSecond(), run);
    run.distinct /= measuredSeconds;
    run.repeated /= measuredSeconds;
    run.skipped /= measuredSeconds;
    return run;
}

} // namespace

class tst_VideoTimelineCadence : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cadence_data();
    void cadence();

private:
    QFile csv;
};

void tst_VideoTimelineCadence::initTestCase()
{
    const QString path = qEnvironmentVariable("ZEV_CADENCE_CSV", QStringLiteral("cadence.csv"));
    csv.setFileName(path);
    QVERIFY2(csv.open(QIODevice::WriteOnly | QIODevice::Text), qPrintable(path + ": " + csv.errorString()));
    QTextStream(&csv) << "frames_per_second,ticks_per_second,noise_us,phase_of_16,distinct_per_second,"
                         "repeated_per_second,skipped_per_second,backwards,odd_steps,shortest_ticks,"
                         "longest_ticks,uneven,read_point_moves\n";
}

void tst_VideoTimelineCadence::cadence_data()
{
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("ticks");
    QTest::addColumn<long long>("noise");
    for (long long noise : {0LL, 500LL}) {
        for (int frames = 0; frames < int(std::size(frameRates)); ++frames) {
            for (int ticks = 0; ticks < int(std::size(tickRates)); ++ticks)
                QTest::addRow("%s frames, %s ticks, noise %lld us", frameRates[frames].name,
                              tickRates[ticks].name, noise)
                    << frames << ticks << noise;
        }
    }
}

void tst_VideoTimelineCadence::cadence()
{
    QFETCH(int, frames);
    QFETCH(int, ticks);
    QFETCH(long long, noise);
    const Rate &frameRate = frameRates[frames];
    const Rate &tickRate = tickRates[ticks];
    const double fps = frameRate.perSecond();
    const double tps = tickRate.perSecond();
    const double aFewInAll = 2.0 / measuredSeconds; // the window cuts a period at either end
    QTextStream out(&csv);
    Run worst;
    worst.shortest = std::numeric_limits<int>::max();
    for (int phase = 0; phase < phases; ++phase) {
        const Run run = simulate(frameRate, tickRate, phase, noise);
        out << frameRate.name << ',' << tickRate.name << ',' << noise << ',' << phase << ',' << run.distinct
            << ',' << run.repeated << ',' << run.skipped << ',' << run.backwards << ',' << run.oddSteps << ','
            << run.shortest << ',' << run.longest << ',' << run.uneven << ',' << run.moves << '\n';
        worst.repeated = std::max(worst.repeated, run.repeated);
        worst.skipped = std::max(worst.skipped, run.skipped);
        worst.uneven = std::max(worst.uneven, run.uneven);
        worst.moves = std::max(worst.moves, run.moves);
        worst.longest = std::max(worst.longest, run.longest);
        if (run.shortest >= 0)
            worst.shortest = std::min(worst.shortest, run.shortest);
        worst.distinct = phase == 0 ? run.distinct : std::min(worst.distinct, run.distinct);

        const QByteArray where = QByteArrayLiteral("phase ") + QByteArray::number(phase);
        QVERIFY2(run.backwards == 0, where);
        // No frame more is repeated or skipped than the rates demand.
        QVERIFY2(std::abs(run.distinct - std::min(fps, tps)) <= aFewInAll, where);
        QVERIFY2(std::abs(run.repeated - std::max(0.0, tps - fps)) <= aFewInAll, where);
        QVERIFY2(std::abs(run.skipped - std::max(0.0, fps - tps)) <= aFewInAll, where);
        QVERIFY2(fps < tps || run.repeated == 0, where);
        QVERIFY2(fps > tps || run.skipped == 0, where);
        QVERIFY2(run.oddSteps == 0, where);
        // The read point rests, except where the rates drift past a whole ratio; there, distances are not
        // even.
        QVERIFY2(drifts(fps, tps) || run.moves == 0, where);
        if (noise == 0 && run.moves == 0)
            QVERIFY2(run.uneven == 0, where);
    }
    qInfo("| %s | %s | %lld | %.3f | %.3f | %.3f | %d to %d | %d | %d |", frameRate.name, tickRate.name,
          noise, worst.distinct, worst.repeated, worst.skipped, worst.longest < 0 ? 0 : worst.shortest,
          std::max(0, worst.longest), worst.uneven, worst.moves);
}

QTEST_GUILESS_MAIN(tst_VideoTimelineCadence)
#include "tst_videotimelinecadence.moc"
