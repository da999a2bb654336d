// Everything that a reader reads from shared memory, while a hostile writer changes it between any two looks.
//
// The reader is the library's own, on memory of its own making. Each load of the index, of the control page
// and of the audio's head is answered by the input for as long as there is any: with what lies there, with a
// value near to it, or with anything. The input also says what the reader is asked to do.
#include "../unit/shm_connection.h"
#include "reader.h"
#include "steps.h"
#include "writer_store.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace shm;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

struct Range
{
    const uint8_t *begin = nullptr;
    size_t bytes = 0;
    bool has(const void *address) const
    {
        const auto *at = static_cast<const uint8_t *>(address);
        return at >= begin && at < begin + bytes;
    }
};

class HostileMemory final : public steps::Memory
{
public:
    void begin(FuzzedDataProvider *input) { m_input = input; }
    uint64_t load(const steps::Cell &cell) override
    {
        const uint64_t there = cell.read(cell.address);
        const bool isShared =
            ranges[0].has(cell.address) || ranges[1].has(cell.address) || ranges[2].has(cell.address);
        if (m_input == nullptr || !isShared || m_input->remaining_bytes() == 0)
            return there;
        const auto how = m_input->ConsumeIntegral<uint8_t>();
        if (how < 128)
            return there;
        if (how < 176)
            return there + m_input->ConsumeIntegral<int8_t>();
        if (how < 216)
            return m_input->ConsumeIntegral<uint8_t>();
        return m_input->ConsumeIntegral<uint64_t>();
    }
    void store(const steps::Cell &cell, uint64_t value, std::memory_order) override
    {
        cell.write(const_cast<void *>(cell.address), value);
    }
    void drain() override {}
    bool splitExchange() override { return false; }

    Range ranges[3]; // index, control page, audio

private:
    FuzzedDataProvider *m_input = nullptr;
};

// A store with video and audio, as a writer would have made it, and its connection.
class Scene
{
public:
    Scene()
    {
        shm_writer_params_t params{};
        params.size = sizeof params;
        params.name = "fuzzed";
        params.width = 16;
        params.height = 8;
        params.pixel_format = SHM_PIXEL_FORMAT_YUV420P;
        params.history_frames = 6;
        params.spare_frames = 2;
        params.sample_rate = 8000;
        params.channels = 3;
        params.audio_streams = 2;
        shm_error_t error{};
        if (makePolicy(params, &store.policy, &error) != 0 || store.create(&error) != 0)
            std::abort();
        createSharedMemory(&control, "shm-control", sizeof(ControlPage), kMemfd, sealsForShared());
        for (uint32_t i = 1; i <= 6; ++i) {
            store.index.generations[i].value.store(i);
            store.index.metas[i].timestamp.store(i * 40000);
            HistoryEntry &entry = store.index.history[i];
            entry.generation.store(i);
            entry.timestamp.store(i * 40000);
            entry.slot.store(i);
        }
        store.index.head->newest.value.store(6);
        store.index.head->intervalUs.store(40000);
        AudioRingWriter audio(store.audioMemory.mapping.data(), store.policy.audio);
        const std::vector<int16_t> samples(size_t{20000} * 3);
        audio.publish(samples.data(), 20000, 1000000, {1000000, 1000000});
    }

    std::unique_ptr<shm_reader> reader(HostileMemory *memory)
    {
        StoreConnection connection = testing_shm::connectTo(store, control);
        const StorePolicy &policy = store.policy;
        memory->ranges[0] = {connection.index.data(), policy.indexBytes};
        memory->ranges[1] = {connection.control.data(), sizeof(ControlPage)};
        memory->ranges[2] = {connection.audio.data(), policy.audioBytes};
        for (uint32_t s = 0; s < policy.slotCount; ++s)
            slots.push_back({connection.slots[s].mapping.data(), policy.slotBytes});
        return std::make_unique<shm_reader>(std::move(connection), 4, 0);
    }

    Store store;
    SharedMemory control;
    std::vector<Range> slots;
};

// One for all inputs: frames that an input leaves locked are given back at its end.
HostileMemory *memory = nullptr;
Scene *scene = nullptr;
std::unique_ptr<shm_reader> *reader = nullptr;

void prepare()
{
    memory = new HostileMemory;
    steps::memory = memory;
    scene = new Scene;
    reader = new std::unique_ptr<shm_reader>(scene->reader(memory));
}

void requireInside(const shm_video_frame_t &frame)
{
    const FrameLayout &layout = scene->store.policy.frame;
    require(frame.slot < scene->slots.size());
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        const size_t bytes = size_t(frame.strides[p]) * layout.planes[p].rows;
        require(scene->slots[frame.slot].has(frame.planes[p]) &&
                scene->slots[frame.slot].has(frame.planes[p] + bytes - 1));
    }
    require(frame.planes[layout.planeCount] == nullptr && frame.width == 16 && frame.height == 8);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (scene == nullptr)
        prepare();
    FuzzedDataProvider input(data, size);
    shm_reader &r = **reader;
    memory->begin(&input);
    std::vector<shm_video_frame_t> held;
    for (int n = 0; n < 24 && input.remaining_bytes() > 0; ++n) {
        switch (input.ConsumeIntegral<uint8_t>() % 8) {
        case 0:
        case 1: {
            shm_video_frame_t frame{};
            frame.timestamp = input.ConsumeBool() ? input.ConsumeIntegralInRange<int64_t>(0, 400000)
                                                  : input.ConsumeIntegral<int64_t>();
            const auto mode = static_cast<shm_video_lookup_mode_t>(input.ConsumeIntegralInRange(0, 4));
            if (r.lock(&frame, mode) == 0) {
                requireInside(frame);
                held.push_back(frame);
                require(held.size() <= 4);
            } else {
                require(frame.planes[0] == nullptr);
            }
            break;
        }
        case 2:
            if (!held.empty()) {
                r.unlock(&held.back());
                require(held.back().planes[0] == nullptr);
                held.pop_back();
            }
            break;
        case 3: {
            shm_video_status_t status{};
            r.videoStatus(&status);
            require(status.frames_held >= 0 && status.frames_held <= 6 && status.jitter_us >= 0);
            break;
        }
        case 4: {
            // Of exactly the size that is told, so that one too many is noticed.
            const int capacity = input.ConsumeIntegralInRange(0, 12);
            const auto stamps = std::make_unique<long long[]>(static_cast<size_t>(capacity));
            const int count = r.timestamps(stamps.get(), capacity);
            require(count >= 0 && count <= capacity);
            break;
        }
        case 5: {
            shm_audio_status_t status{};
            r.audioStatus(input.ConsumeIntegral<int8_t>(), &status);
            require(status.frames <= scene->store.policy.audio.capacity);
            break;
        }
        case 6: {
            const auto items = input.ConsumeIntegralInRange<uint64_t>(1, 400);
            const auto each = input.ConsumeIntegralInRange<uint64_t>(1, 20);
            const int channel = input.ConsumeIntegralInRange(-1, 3);
            const auto samples = std::make_unique<int16_t[]>(items * each * 3);
            const int64_t start = input.ConsumeBool()
                                      ? input.ConsumeIntegralInRange<int64_t>(1000000, 4000000)
                                      : input.ConsumeIntegral<int64_t>();
            const int64_t got =
                r.queryAudio(input.ConsumeIntegral<int8_t>(), samples.get(), items, each, start, channel);
            require(got <= static_cast<int64_t>(items));
            break;
        }
        default: {
            shm_store_info_t info{};
            info.size = sizeof info;
            r.info(&info, true);
            break;
        }
        }
    }
    memory->begin(nullptr);
    for (shm_video_frame_t &frame : held) {
        r.unlock(&frame);
        require(frame.planes[0] == nullptr);
    }
    require(r.freeWord() == 0);
    return 0;
}
