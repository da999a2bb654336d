#include "zevshm_ownstore.h"

#include "zevshm_driver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace driver {

using namespace zevshm;

OwnStore::OwnStore(const std::string &name, int width, int height, const Plan &plan)
    : m_plan(plan), m_pattern(PatternKind::Moving, width, height, Matrix::Bt601), m_tones(sampleRate, 2)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = name.c_str();
    if (plan.video) {
        params.width = width;
        params.height = height;
        params.pixel_format = plan.pixelFormat;
        params.color.matrix = SHM_MATRIX_BT601;
        params.rate_numerator = 25;
        params.rate_denominator = 1;
    }
    if (plan.audioStreams > 0) {
        params.sample_rate = sampleRate;
        params.channels = 2;
        params.audio_streams = plan.audioStreams;
    }
    shm_error_t error{};
    EXPECT_EQ(shm_writer_open(&params, &m_writer, &error), 0) << error.message;
    m_nowUs = std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
}

OwnStore::~OwnStore()
{
    shm_writer_close(m_writer);
}

void OwnStore::publish()
{
    if (m_plan.video) {
        shm_writer_frame_t slot{};
        ASSERT_EQ(shm_writer_acquire(m_writer, &slot), 0);
        PlaneSet planes;
        planes.width = slot.width;
        planes.height = slot.height;
        planes.interleavedChroma = m_plan.pixelFormat == SHM_PIXEL_FORMAT_NV12;
        for (int i = 0; i < 3; ++i) {
            planes.planes[i] = slot.planes[i];
            planes.strides[i] = slot.strides[i];
        }
        m_pattern.draw(planes, static_cast<uint32_t>(m_number), m_nowUs, 0);
        ASSERT_EQ(shm_writer_publish(m_writer, &slot, m_nowUs), 0);
    }
    for (int stream = 0; stream < m_plan.audioStreams; ++stream) {
        std::vector<int16_t> samples(2 * samplesAFrame);
        m_tones.tones(samples.data(), samplesAFrame, m_number * samplesAFrame);
        for (int16_t &sample : samples)
            sample = static_cast<int16_t>(sample / (stream + 1));
        ASSERT_EQ(shm_writer_publish_audio(m_writer, stream, samples.data(), samplesAFrame, m_nowUs), 0);
    }
    ++m_number;
    m_nowUs += intervalUs;
}

void OwnStore::publish(int frames, int paceMs)
{
    for (int i = 0; i < frames; ++i) {
        publish();
        waitFor([] { return false; }, paceMs);
    }
}

shm_writer_stats_t OwnStore::stats() const
{
    shm_writer_stats_t stats{};
    stats.size = sizeof stats;
    shm_writer_get_stats(m_writer, &stats);
    return stats;
}

} // namespace driver
