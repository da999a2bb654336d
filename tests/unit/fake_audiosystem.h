#ifndef ZEV_TESTS_FAKE_AUDIOSYSTEM_H
#define ZEV_TESTS_FAKE_AUDIOSYSTEM_H

#include <QtCore/QList>
#include <QtCore/QPointer>
#include <QtCore/QSet>
#include <QtCore/QStringList>
#include <QtMultimedia/QAudioSystemPlugin>

#include <functional>

class FakeAudioOutput;

/*!
 * The audio devices of a machine, for tests: a plugin that is linked in, found by Qt as any other when
 * QCoreApplication's library paths are empty. Set the fields before the output is created.
 *
 * Threads: one.
 */
class FakeAudioSystem
{
public:
    static FakeAudioSystem &instance();
    void reset();

    QStringList devices; // the first is the default
    QSet<int> rates;     // that the devices take
    QAudioFormat preferred;
    QAudio::Error startError;         // of outputs created from now on
    QList<QAudio::State> failing;     // the states that a failing start goes through
    QStringList createdOn;            // devices, one for every output that was created
    QPointer<FakeAudioOutput> output; // created last
    int liveOutputs;
    int destroyedActive;                 // outputs that were destroyed while active
    std::function<void()> whenListed;    // called when the devices are asked for
    std::function<void()> whenDestroyed; // called while an output is destroyed
    int askedWhileDestroyed;             // how often outputs were asked for something then
};

class FakeAudioOutput : public QAbstractAudioOutput
{
    Q_OBJECT

public:
    FakeAudioOutput();
    ~FakeAudioOutput() override;

    // What the device does.
    QByteArray pull(int bytes);
    bool hasOpenDevice() const { return device && device->isOpen(); } // started on, and not stopped since
    void tick() { Q_EMIT notify(); }
    void enter(QAudio::State newState, QAudio::Error newError);

    void start(QIODevice *device) override;
    QIODevice *start() override { return nullptr; }
    void stop() override;
    void reset() override { ++resets; }
    void suspend() override {}
    void resume() override {}
    int bytesFree() const override { return free; }
    int periodSize() const override { return period; }
    void setBufferSize(int value) override { bufferSizes.append(value); }
    int bufferSize() const override { return buffer; }
    void setNotifyInterval(int milliSeconds) override { interval = milliSeconds; }
    int notifyInterval() const override { return interval; }
    qint64 processedUSecs() const override { return processed; }
    qint64 elapsedUSecs() const override { return processed; }
    QAudio::Error error() const override { return error_; }
    QAudio::State state() const override
    {
        countIfDestroyed();
        return state_;
    }
    void setFormat(const QAudioFormat &format) override { format_ = format; }
    QAudioFormat format() const override { return format_; }
    void setVolume(qreal newVolume) override
    {
        countIfDestroyed();
        volume_ = newVolume;
    }
    qreal volume() const override { return volume_; }

    int period = 3840;
    int buffer = 48000;
    int free = 0;
    int interval = 1000;
    qint64 processed = 0;
    int resets = 0;
    QList<int> bufferSizes; // that were asked for

private:
    void countIfDestroyed() const;

    bool isBeingDestroyed = false;
    QPointer<QIODevice> device;
    QAudioFormat format_;
    QAudio::State state_ = QAudio::StoppedState;
    QAudio::Error error_ = QAudio::NoError;
    qreal volume_ = -1;
};

class FakeAudioDeviceInfo : public QAbstractAudioDeviceInfo
{
    Q_OBJECT

public:
    explicit FakeAudioDeviceInfo(const QString &deviceName) : name(deviceName) {}
    QAudioFormat preferredFormat() const override { return FakeAudioSystem::instance().preferred; }
    bool isFormatSupported(const QAudioFormat &format) const override;
    QString deviceName() const override { return name; }
    QStringList supportedCodecs() override { return {QStringLiteral("audio/pcm")}; }
    QList<int> supportedSampleRates() override { return FakeAudioSystem::instance().rates.values(); }
    QList<int> supportedChannelCounts() override { return {1, 2}; }
    QList<int> supportedSampleSizes() override { return {16}; }
    QList<QAudioFormat::Endian> supportedByteOrders() override { return {QAudioFormat::LittleEndian}; }
    QList<QAudioFormat::SampleType> supportedSampleTypes() override { return {QAudioFormat::SignedInt}; }

private:
    QString name;
};

class FakeAudioPlugin : public QAudioSystemPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QAudioSystemFactoryInterface_iid FILE "fake_audiosystem.json")

public:
    QList<QByteArray> availableDevices(QAudio::Mode mode) const override;
    QAbstractAudioInput *createInput(const QByteArray &) override { return nullptr; }
    QAbstractAudioOutput *createOutput(const QByteArray &device) override;
    QAbstractAudioDeviceInfo *createDeviceInfo(const QByteArray &device, QAudio::Mode mode) override;
};

#endif
