#include "storepublisher.h"

#include <QtGlobal>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

namespace {

constexpr std::chrono::milliseconds interval(40);
constexpr qint64 intervalUs = 40000;
constexpr int rate = 48000;
constexpr int samplesOfInterval = rate / 25;

// BT.601, full range.
struct Sample
{
    uchar y, u, v;
};

Sample sampleOf(const QColor &color)
{
    const double r = color.red();
    const double g = color.green();
    const double b = color.blue();
    const auto byte = [](double value) { return uchar(std::clamp(std::lround(value), 0L, 255L)); };
    return {byte(0.299 * r + 0.587 * g + 0.114 * b), byte(128 - 0.168736 * r - 0.331264 * g + 0.5 * b),
            byte(128 + 0.5 * r - 0.418688 * g - 0.081312 * b)};
}

qint64 wallClockUs()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

} // namespace

StorePublisher::StorePublisher(const QString &name, const QColor &color, const QSize &size, bool hasSound)
    : m_name(name), m_color(color), m_size(size), m_hasSound(hasSound)
{
    const QByteArray utf8 = name.toUtf8();
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = utf8.constData();
    params.width = size.width();
    params.height = size.height();
    params.pixel_format = size.isEmpty() ? SHM_PIXEL_FORMAT_NONE : SHM_PIXEL_FORMAT_NV12;
    params.color.matrix = SHM_MATRIX_BT601;
    params.color.range = SHM_RANGE_FULL;
    params.rate_numerator = size.isEmpty() ? 0 : 25;
    params.rate_denominator = size.isEmpty() ? 0 : 1;
    params.sample_rate = hasSound ? rate : 0;
    params.channels = hasSound ? 2 : 0;
    params.audio_streams = hasSound ? 1 : 0;
    shm_error_t error = {};
    if (shm_writer_open(&params, &m_writer, &error) != 0) {
        qWarning("%s", error.message);
        m_writer = nullptr;
        return;
    }
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = 30000;
    m_reader = shm_reader_open_with(utf8.constData(), &options, &error);
    m_thread = std::thread([this] { run(); });
}

StorePublisher::~StorePublisher()
{
    m_isEnding = true;
    if (m_thread.joinable())
        m_thread.join();
    shm_reader_close(m_reader);
    if (m_writer)
        shm_writer_close(m_writer);
}

int StorePublisher::locksHeld() const
{
    shm_store_info_t info = {};
    info.size = sizeof info;
    return m_reader && shm_reader_get_info(m_reader, &info) == 0 ? info.locks_held : -1;
}

void StorePublisher::run()
{
    const Sample sample = sampleOf(m_color);
    std::vector<int16_t> sound(2 * samplesOfInterval, 0);
    for (int i = 0; i < samplesOfInterval; ++i)
        sound[std::size_t(2 * i)] = i / 24 % 2 == 0 ? 16384 : -16384;
    qint64 soundAt = wallClockUs() - intervalUs;
    auto due = std::chrono::steady_clock::now();
    while (!m_isEnding) {
        shm_writer_frame_t frame = {};
        if (!m_isPaused && !m_size.isEmpty() && shm_writer_acquire(m_writer, &frame) == 0) {
            std::fill_n(frame.planes[0], std::ptrdiff_t(frame.strides[0]) * m_size.height(), sample.y);
            uint8_t *chroma = frame.planes[1];
            for (int i = 0; i < frame.strides[1] * (m_size.height() / 2); ++i)
                chroma[i] = i % 2 == 0 ? sample.u : sample.v;
            if (shm_writer_publish(m_writer, &frame, wallClockUs()) == 0)
                ++m_published;
        }
        if (!m_isPaused && m_hasSound)
            shm_writer_publish_audio(m_writer, 0, sound.data(), samplesOfInterval, soundAt);
        soundAt += intervalUs; // without a gap, whenever this thread comes to it
        due += interval;
        std::this_thread::sleep_until(due);
    }
}
