#include <zevqt-mm/audioplayer.h>

#include "audio/audiologging.h"
#include "audio/soundserver.h"
#include "audio/soundserverreturn.h"
#include "wrapping.h"

#include <QtCore/QFile>
#include <QtCore/QPointer>
#include <QtCore/QScopedValueRollback>
#include <QtCore/QThread>
#include <QtMultimedia/QAudioOutput>

#include <cmath>
#include <limits>
#include <utility>

namespace {

const qint64 clockShiftLimitMs = 1000;
const double announcedVolumeMove = 0.05;
const double smoothingKeep = 0.999;
const double smoothingTake = 0.001;
const char serverIsSilent[] =
    "The sound server (PulseAudio) does not answer. It has to be continued or restarted; then try again.";

int notifyIntervalMs(double fps)
{
    return static_cast<int>(qMin(1000.0 / fps, static_cast<double>(std::numeric_limits<int>::max())));
}

} // namespace

AudioPlayer *AudioPlayer::instance = nullptr;

AudioPlayer *AudioPlayer::getInstance()
{
    if (!instance)
        instance = new AudioPlayer;
    return instance;
}

void AudioPlayer::teardown()
{
    delete instance;
    instance = nullptr;
}

QStringList AudioPlayer::deviceNames()
{
    SoundServerReturn::watch(); // which a player would do only later
    if (!SoundServerReturn::findBackend()) {
        qCWarning(audio) << "Audio playback devices are not known." << serverIsSilent;
        return {};
    }
    const QList<QAudioDeviceInfo> devices = QAudioDeviceInfo::availableDevices(QAudio::AudioOutput);
    SoundServerReturn::lookForServer(devices);
    QStringList names;
    for (const QAudioDeviceInfo &device : devices) // without a sound server, the default one has no name
        if (!device.deviceName().isEmpty() && !names.contains(device.deviceName()))
            names << device.deviceName();
    return names;
}

AudioPlayer::AudioPlayer()
    : output(nullptr), volume_(1.0), muted_(false), timeBase(0), correction(0.0), fixedSampleRate_(-1),
      isOutputEmitting(false), isStarting(false), leaving(nullptr), isRateConverted(false),
      failure_(NoFailure)
{
    SoundServerReturn::watch();
}

AudioPlayer::~AudioPlayer()
{
    isStarting = true; // no slot of playerStopped() starts anew
    device = QAudioDeviceInfo();
    stop(); // the backends of Qt 5 abort the process when an active output is destroyed
    delete std::exchange(output, nullptr); // closing may handle events, of which some may ask the player
    qCDebug(audio) << "Audio player destroyed";
}

bool AudioPlayer::enabled() const
{
    return !device.isNull();
}

bool AudioPlayer::isActive() const
{
    return output && output->state() == QAudio::ActiveState;
}

bool AudioPlayer::isStopped() const
{
    return !output || output->state() == QAudio::StoppedState;
}

double AudioPlayer::volume() const
{
    return volume_;
}

bool AudioPlayer::muted() const
{
    return muted_;
}

qint64 AudioPlayer::delay() const
{
    return reader.getDelay();
}

qint64 AudioPlayer::maxDelay() const
{
    return reader.getMaxDelay();
}

int AudioPlayer::fixedSampleRate() const
{
    return fixedSampleRate_;
}

int AudioPlayer::sampleRate() const
{
    return isActive() ? output->format().sampleRate() : 0;
}

qint64 AudioPlayer::getReadPosition() const
{
    return reader.isOpen() ? reader.getReadPosition() : 0;
}

qint64 AudioPlayer::getReserve() const
{
    return reader.isOpen() ? reader.getReserve() : -1;
}

qint64 AudioPlayer::getDevicePosition() const
{
    if (!isActive() || getReadPosition() == 0)
        return 0;
    const QAudioFormat format = output->format();
    const int held = qMax(0, output->bufferSize() - output->bytesFree());
    const qint64 untold = isRateConverted ? 3 * format.durationForBytes(output->periodSize()) / 4 : 0;
    return getReadPosition() - reader.readAhead() - format.durationForBytes(held) + untold;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
bool AudioPlayer::setDevice(QString name)
{
    if (enabled())
        stop();
    if (name.isEmpty())
        return true;
    if (!SoundServerReturn::findBackend()) {
        qCWarning(audio) << "Audio playback device" << name << serverIsSilent;
        failure_ = ServerSilent;
        return false;
    }
    if (failure_ == ServerSilent)
        failure_ = NotAsked;
    if (name == QLatin1String("default")) {
        selectDevice(QAudioDeviceInfo::defaultOutputDevice());
        if (!soundserver::isItsDevice(device)) // whose devices come first
            SoundServerReturn::lookForServer({});
        qCDebug(audio) << "Selected default audio playback device" << device.deviceName();
        return true;
    }
    const QList<QAudioDeviceInfo> devices = QAudioDeviceInfo::availableDevices(QAudio::AudioOutput);
    for (const QAudioDeviceInfo &candidate : devices) {
        if (candidate.deviceName() == name) {
            selectDevice(candidate);
            qCDebug(audio) << "Selected audio playback device" << name;
            return true;
        }
    }
    qCWarning(audio) << "Audio playback device" << name << "not found";
    SoundServerReturn::lookForServer(devices);
    return false;
}

bool AudioPlayer::start(MediaSource *source, double fps, bool requireAudio)
{
    if (isStarting)
        return false;
    const QScopedValueRollback<bool> starting(isStarting, true);
    const QPointer<MediaSource> asked(source);
    QAudio::Error error = QAudio::NoError;
    if (begin(source, fps, requireAudio, &error))
        return true;
    return error == QAudio::FatalError && SoundServerReturn::lookAgain(device) &&
           begin(asked, fps, requireAudio, &error);
}

bool AudioPlayer::begin(MediaSource *source, double fps, bool requireAudio, QAudio::Error *error)
{
    failure_ = NotAsked;
    if (device.isNull() || !source || source == leaving)
        return false;
    const QPointer<MediaSource> asked(source); // whoever hears of a stop, or of an event, may delete it
    stop();
    if (!asked || device.isNull())
        return false;
    const QAudioDeviceInfo selected = device;
    const QString name = source->name();
    qCDebug(audio).nospace() << "Audio playback starting for " << name;

    if (!isDeviceReady(name) || !asked)
        return false;
    QAudioFormat format;
    if (!negotiateFormat(source, requireAudio, &format)) {
        qCCritical(audio) << "Source" << name << "does not have audio";
        failure_ = SourceSilent;
        return false;
    }
    playedFormat_ = format;
    if (!reader.open(source, format, requireAudio)) {
        qCCritical(audio) << "Failed to open audio reader for" << name;
        failure_ = FormatRefused;
        return false;
    }

    prepareOutput(format);
    QAudioOutput *const prepared = output;
    if (asked && device == selected) {
        isRateConverted = device.preferredFormat().sampleRate() != format.sampleRate();
        output->setVolume(muted_ ? 0.0 : volume_);
        setReportRate(fps);
        output->start(&reader);
        *error = prepared->error(); // one that has emitted is still there
    }
    if (!asked || device != selected || output != prepared) {
        qCWarning(audio) << "Audio playback of" << name
                         << "did not start: its source or device changed meanwhile";
        reader.close();
        stop();
        return false;
    }
    if (*error != QAudio::NoError) {
        qCCritical(audio) << "Audio playback failed for" << name << "Error code:" << *error;
        stop();
        reader.close(); // a backend may fail without a change of its state
        failure_ = DeviceFailed;
        return false;
    }
    SoundServerReturn::started(device);
    // A source that dies in another thread has to wait until nobody reads from it any more.
    connect(source, &QObject::destroyed, this, &AudioPlayer::activeSourceDestroyed,
            source->thread() == thread() ? Qt::DirectConnection : Qt::BlockingQueuedConnection);
    clockDetector.start();
    qCInfo(audio).nospace() << "Audio playback started for " << name << " (" << format.sampleRate() << "/"
                            << format.channelCount() << "/" << format.sampleSize() << ")";
    failure_ = NoFailure;
    return true;
}

// Whoever starts an output on a device that is gone, or of a server that is silent, waits for ever. A server
// that takes no more connections while the backend is connected has a full queue of them: it is silent.
bool AudioPlayer::isDeviceReady(const QString &name)
{
    const soundserver::State state = soundserver::stateOf(device);
    if (state == soundserver::State::Gone) {
        qCCritical(audio) << "Audio playback failed for" << name
                          << "The device is gone:" << device.deviceName();
        failure_ = DeviceGone;
        return false;
    }
    if (state == soundserver::State::Silent ||
        (state == soundserver::State::NoServer && SoundServerReturn::isConnected(device))) {
        qCCritical(audio) << "Audio playback failed for" << name << "on" << device.deviceName()
                          << serverIsSilent;
        failure_ = ServerSilent;
        return false;
    }
    return true;
}

void AudioPlayer::setReportRate(double fps)
{
    if (output && fps > 0)
        output->setNotifyInterval(notifyIntervalMs(fps));
}

bool AudioPlayer::negotiateFormat(MediaSource *source, bool requireAudio, QAudioFormat *format) const
{
    *format = source->getAudioFormat();
    if (format->isValid())
        *format = device.nearestFormat(*format);
    else if (requireAudio)
        return false;
    else
        *format = device.preferredFormat(); // the reader plays silence until there is audio

    if (fixedSampleRate_ != -1 && format->sampleRate() != fixedSampleRate_) {
        format->setSampleRate(fixedSampleRate_);
        *format = device.nearestFormat(*format);
    }
    return true;
}

void AudioPlayer::prepareOutput(const QAudioFormat &format)
{
    if (output && output->format() == format) {
        output->reset();
        return;
    }
    discardOutput();
    output = new QAudioOutput(device, format);
    connect(output, &QAudioOutput::stateChanged, this, &AudioPlayer::playerStateChanged);
    connect(output, &QAudioOutput::notify, this, &AudioPlayer::onFrameTimer);
}

// A slot of audioPlayed() or playerStopped() may select another device or start anew: then the output is
// still busy emitting and must outlive that.
void AudioPlayer::discardOutput()
{
    if (!output)
        return;
    QAudioOutput *former = std::exchange(output, nullptr); // closing may handle events
    former->stop();                                        // a slot may have started it anew
    former->disconnect(this);
    if (isOutputEmitting)
        former->deleteLater();
    else
        delete former;
}

// An output is bound to its device: one that is kept for the next start must not outlive the choice.
void AudioPlayer::selectDevice(const QAudioDeviceInfo &selected)
{
    if (selected == device)
        return;
    device = selected; // what is started by whoever hears of the stop is heard there
    discardOutput();
}

void AudioPlayer::stop()
{
    if (!output || output->state() == QAudio::StoppedState)
        return;
    qCDebug(audio) << "Audio playback stopping";
    output->stop();
    qCInfo(audio) << "Audio playback stopped";
}

void AudioPlayer::playerStateChanged(QAudio::State state)
{
    const QScopedValueRollback<bool> emitting(isOutputEmitting, true);
    qCDebug(audio).nospace() << "Audio player state changed to " << state;
    if (state != QAudio::StoppedState)
        return;
    if (reader.isOpen()) {
        disconnect(reader.getSource(), nullptr, this, nullptr);
        reader.close();
    }
    timeBase = 0;
    correction = 0;
    Q_EMIT playerStopped();
}

void AudioPlayer::onFrameTimer()
{
    const QScopedValueRollback<bool> emitting(isOutputEmitting, true);
    const qint64 shift = clockDetector.check();
    if (std::abs(shift) <= clockShiftLimitMs) {
        Q_EMIT audioPlayed(getPlayedTime());
        return;
    }
    qCWarning(audio).nospace() << "Audio. Clock shift detected (" << shift << " ms)";
    stop();
}

void AudioPlayer::activeSourceDestroyed()
{
    qCInfo(audio) << "Active media source destroyed during playback";
    const QScopedValueRollback<const QObject *> going(leaving, reader.getSource());
    stop();
}

qint64 AudioPlayer::getPlayedTime()
{
    if (!isActive())
        return 0;
    const qint64 firstTimestamp = reader.getFirstTimestamp();
    if (firstTimestamp < 1)
        return firstTimestamp;

    const QAudioFormat format = output->format();
    const qint64 period = format.durationForBytes(output->periodSize());
    const qint64 buffered = format.durationForBytes(output->bufferSize());
    // The first sample read, plus what has left the device: what was handed over less what still lies there.
    const qint64 raw = firstTimestamp + (output->processedUSecs() - buffered - period);
    if (timeBase == 0) {
        timeBase = raw;
        smoothTimer.start();
        return raw;
    }
    const int diff =
        wrapping::subtract(static_cast<int>(1000 * smoothTimer.elapsed()), static_cast<int>(raw - timeBase));
    correction = correction * smoothingKeep + diff * smoothingTake;
    return raw + static_cast<qint64>(correction);
}

void AudioPlayer::setVolume(double newVolume)
{
    const double clamped = qBound(0.0, newVolume, 1.0);
    const bool isAnnounced = std::abs(clamped - volume_) > announcedVolumeMove;
    volume_ = clamped;
    if (output && !muted_)
        output->setVolume(volume_);
    const QScopedValueRollback<bool> emitting(isOutputEmitting, true);
    if (isAnnounced)
        Q_EMIT volumeChanged();
}

void AudioPlayer::setMuted(bool mute)
{
    const bool isChanged = muted_ != mute;
    muted_ = mute;
    if (output)
        output->setVolume(muted_ ? 0.0 : volume_);
    const QScopedValueRollback<bool> emitting(isOutputEmitting, true);
    if (isChanged)
        Q_EMIT mutedChanged();
}

void AudioPlayer::setDelay(qint64 newDelay)
{
    reader.setDelay(newDelay);
}

void AudioPlayer::setMaxDelay(qint64 newMaxDelay)
{
    reader.setMaxDelay(newMaxDelay);
}

void AudioPlayer::setFixedSampleRate(int newFixedSampleRate)
{
    fixedSampleRate_ = newFixedSampleRate;
}

void AudioPlayer::setWaveformFile(const QString &path)
{
    if (path.isEmpty())
        return;
    auto *file = new QFile(path, &reader);
    if (file->open(QIODevice::WriteOnly)) {
        reader.setWaveformOutput(file);
    } else {
        reader.setWaveformOutput(nullptr);
        delete file;
    }
}
