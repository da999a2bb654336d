// A reader's side of a store that lies in the same process.
#ifndef SHM_CONNECTION_H
#define SHM_CONNECTION_H

#include "reader.h"
#include "writer_store.h"

namespace testing_shm {

// What a handshake would have made; `control` is the reader's page.
inline shm::StoreConnection connectTo(const shm::Store &store, const shm::SharedMemory &control)
{
    shm::StoreConnection connection;
    shm::WelcomeMessage &layout = connection.layout;
    const shm::StorePolicy &policy = store.policy;
    layout.session = policy.session;
    layout.slotBytes = policy.slotBytes;
    layout.planeCount = policy.frame.planeCount;
    for (uint32_t p = 0; p < policy.frame.planeCount; ++p) {
        layout.offsets[p] = policy.frame.planes[p].offset;
        layout.strides[p] = policy.frame.planes[p].stride;
    }
    layout.width = policy.width;
    layout.height = policy.height;
    layout.pixelFormat = policy.pixelFormat;
    layout.historyFrames = policy.historyFrames;
    layout.historyRing = store.index.ring;
    layout.slotCapacity = policy.slotCapacity;
    layout.sampleRate = policy.audio.sampleRate;
    layout.channels = policy.audio.channels;
    layout.audioStreams = policy.audioStreams;
    layout.audioCapacity = policy.audio.capacity;
    layout.audioHistory = policy.audio.history;
    layout.audioBytes = policy.audioBytes;
    connection.index.map(store.indexMemory.fd.get(), policy.indexBytes, false);
    connection.control.map(control.fd.get(), sizeof(shm::ControlPage), true);
    if (policy.audioBytes > 0)
        connection.audio.map(store.audioMemory.fd.get(), policy.audioBytes, false);
    connection.slots.resize(policy.slotCapacity);
    for (uint32_t s = 0; s < policy.slotCount; ++s) {
        connection.slots[s].mapping.map(store.slots[s].memory.fd.get(), policy.slotBytes, true);
        connection.slots[s].memoryGeneration = store.slots[s].memoryGeneration;
    }
    return connection;
}

} // namespace testing_shm

#endif
