// What a reader demands of a writer's messages before it maps anything. Pure functions of bytes, without
// sockets.
#ifndef SHM_HANDSHAKE_CHECK_H
#define SHM_HANDSHAKE_CHECK_H

#include "protocol.h"

namespace shm {

// A welcome whose every number has been checked: geometry, strides, offsets and sizes fit together and within
// the limits, planes are disjoint and inside the slot, texts end. Returns 0 with the copy in `*checked`, or
// -EPROTO (-EPROTONOSUPPORT for another version) with the reason in `*why`.
int checkWelcome(const void *bytes, size_t length, size_t fdCount, WelcomeMessage *checked, const char **why);

// A list of slots: indexes within `slotCapacity` and none twice, one descriptor for each entry with memory.
int checkSlots(const void *bytes, size_t length, size_t fdCount, uint32_t slotCapacity, SlotsMessage *checked,
               const char **why);

// A list of DMA-bufs: as above, one descriptor for each entry; empty only when there are none.
int checkDmabufs(const void *bytes, size_t length, size_t fdCount, uint32_t slotCapacity,
                 DmabufsMessage *checked, const char **why);

// The reason a writer gave, ended, and with everything but printable ASCII replaced.
void checkRefused(const void *bytes, size_t length, RefusedMessage *checked);

} // namespace shm

#endif
