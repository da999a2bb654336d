// A reader's side of the handshake, up to a connection whose memory is checked and mapped.
//
// It goes on where it stopped: a writer that does not answer in time leaves it unfinished, and it is looked
// at again by the next open of that name without waiting (pending_handshakes.h).
//
// Threads: bound to one at a time. Ownership: owns socket, descriptors and mappings; nothing leaks on
// failure.
#ifndef SHM_HANDSHAKE_H
#define SHM_HANDSHAKE_H

#include "memory.h"
#include "messages.h"
#include "rendezvous.h"

#include <string>
#include <vector>

namespace shm {

// The memory of one slot in this process.
struct SlotMapping
{
    Mapping mapping;
    uint32_t memoryGeneration = 0; // 0: none
    uint64_t inode = 0;
    UniqueFd dmabuf; // of the same memory; only when it was asked for
};

// What a reader has of a store.
struct StoreConnection
{
    UniqueFd socket;
    UniqueFd pidfd; // of the writer's process; may be empty
    Peer peer;
    std::string directory;
    WelcomeMessage layout{};
    Mapping index;
    Mapping control;
    Mapping audio;
    std::vector<SlotMapping> slots; // slotCapacity of them

    // Takes in a list of slots. `inUse` says which slots must not change. Returns 0 or a negative errno.
    template <class InUse>
    int applySlots(Message &message, InUse &&inUse, const char **why)
    {
        SlotsMessage list;
        int result = beginSlots(message, &list, why);
        for (uint32_t i = 0; result == 0 && i < list.count; ++i) {
            if (inUse(list.entries[i].slot)) {
                *why = "a slot is replaced while it is locked";
                return -EPROTO;
            }
        }
        return result == 0 ? mapSlots(message, list, why) : result;
    }

    // Takes in a list of DMA-bufs. `*complete` becomes true when all that there are have come.
    int applyDmabufs(Message &message, bool *complete, const char **why);

private:
    int beginSlots(const Message &message, SlotsMessage *list, const char **why) const;
    int mapSlots(Message &message, const SlotsMessage &list, const char **why);
    bool known(uint64_t inode) const;
    std::vector<uint64_t> m_inodes; // of all memory but slots
    friend class Handshake;
};

class Handshake
{
public:
    // Connects. Returns 0 or a negative errno with `error` filled.
    int begin(const std::string &directory, const std::string &name, int timeoutMs, uint32_t maxLocks,
              shm_error_t *error);

    // Goes on until `deadlineUs` (monotonic). Returns 0 when complete, -ETIMEDOUT when it is to be continued,
    // else another negative errno: it has failed.
    int advance(int64_t deadlineUs, shm_error_t *error);

    StoreConnection take() { return std::move(m_connection); }
    const SocketFile &file() const { return m_file; }

private:
    int wait(int64_t deadlineUs, shm_error_t *error);
    int handle(Message &message, shm_error_t *error);
    int handleWelcome(Message &message, shm_error_t *error);
    int reject(int code, const char *why, shm_error_t *error);
    int failDead(shm_error_t *error) const;
    int failSilent(shm_error_t *error) const;

    std::string m_name;
    SocketFile m_file;
    StoreConnection m_connection;
    bool m_welcomed = false;
    bool m_ready = false;
};

} // namespace shm

#endif
