#include "fake_audiosystem.h"

#include <QtPlugin>

Q_IMPORT_PLUGIN(FakeAudioPlugin)

FakeAudioSystem &FakeAudioSystem::instance()
{
    static FakeAudioSystem system;
    return system;
}

void FakeAudioSystem::reset()
{
    devices = QStringList{QStringLiteral("speaker"), QStringLiteral("headphones"), QStringLiteral("Default")};
    rates = {44100, 48000};
    preferred = QAudioFormat();
    preferred.setCodec(QStringLiteral("audio/pcm"));
    preferred.setSampleRate(44100);
    preferred.setChannelCount(2);
    preferred.setSampleSize(16);
    preferred.setSampleType(QAudioFormat::SignedInt);
    preferred.setByteOrder(QAudioFormat::LittleEndian);
    startError = QAudio::NoError;
    failing = {QAudio::ActiveState, QAudio::StoppedState};
    createdOn.clear();
    destroyedActive = 0;
    whenDestroyed = {};
    askedWhileDestroyed = 0;
}

FakeAudioOutput::FakeAudioOutput()
{
    ++FakeAudioSystem::instance().liveOutputs;
}

FakeAudioOutput::~FakeAudioOutput()
{
    --FakeAudioSystem::instance().liveOutputs;
    if (state_ != QAudio::StoppedState)
        ++FakeAudioSystem::instance().destroyedActive;
    isBeingDestroyed = true;
    if (const auto called = FakeAudioSystem::instance().whenDestroyed)
        called();
}

void FakeAudioOutput::countIfDestroyed() const
{
    FakeAudioSystem::instance().askedWhileDestroyed += isBeingDestroyed ? 1 : 0;
}

void FakeAudioOutput::start(QIODevice *newDevice)
{
    const FakeAudioSystem &system = FakeAudioSystem::instance();
    device = newDevice;
    if (system.startError == QAudio::NoError) {
        enter(QAudio::ActiveState, QAudio::NoError);
        return;
    }
    for (const QAudio::State state : system.failing)
        enter(state, system.startError);
    error_ = system.startError;
}

void FakeAudioOutput::stop()
{
    enter(QAudio::StoppedState, QAudio::NoError);
    device = nullptr;
}

void FakeAudioOutput::enter(QAudio::State newState, QAudio::Error newError)
{
    error_ = newError;
    if (state_ == newState)
        return;
    state_ = newState;
    Q_EMIT stateChanged(newState);
}

QByteArray FakeAudioOutput::pull(int bytes)
{
    return device && state_ == QAudio::ActiveState ? device->read(bytes) : QByteArray();
}

bool FakeAudioDeviceInfo::isFormatSupported(const QAudioFormat &format) const
{
    return FakeAudioSystem::instance().rates.contains(format.sampleRate()) && format.channelCount() <= 2 &&
           format.sampleSize() == 16;
}

QList<QByteArray> FakeAudioPlugin::availableDevices(QAudio::Mode mode) const
{
    if (FakeAudioSystem::instance().whenListed)
        FakeAudioSystem::instance().whenListed();
    QList<QByteArray> names;
    if (mode == QAudio::AudioOutput) {
        for (const QString &name : qAsConst(FakeAudioSystem::instance().devices))
            names.append(name.toUtf8());
    }
    return names;
}

QAbstractAudioOutput *FakeAudioPlugin::createOutput(const QByteArray &device)
{
    FakeAudioSystem &system = FakeAudioSystem::instance();
    system.createdOn.append(QString::fromUtf8(device));
    auto *output = new FakeAudioOutput;
    system.output = output;
    return output;
}

QAbstractAudioDeviceInfo *FakeAudioPlugin::createDeviceInfo(const QByteArray &device, QAudio::Mode)
{
    return new FakeAudioDeviceInfo(QString::fromUtf8(device));
}
