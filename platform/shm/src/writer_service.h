// The writer's service thread: accepts readers, notices their death, beats the heart, keeps slots in supply.
//
// Everything in here runs in that thread but start(), stop() and the constructor. It owns the connections; it
// shares the store with the publishing threads as writer_store.h says. It never holds anything that
// publishing waits for.
#ifndef SHM_WRITER_SERVICE_H
#define SHM_WRITER_SERVICE_H

#include "fd.h"
#include "messages.h"
#include "writer_store.h"

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace shm {

class WriterService
{
public:
    explicit WriterService(Store &store) : m_store(store) {}
    ~WriterService() { stop(); }
    WriterService(const WriterService &) = delete;
    WriterService &operator=(const WriterService &) = delete;

    // Borrows the listening socket until stop(). Returns 0 or a negative errno with `error` filled.
    int start(int listenSocket, shm_error_t *error);
    void stop();
    // In a forked child, where there is no such thread: closes the descriptors and forgets the thread.
    void forget();

private:
    struct Connection
    {
        UniqueFd socket;
        UniqueFd pidfd; // of the reader's process
        Peer peer;
        bool trusted = false; // same user: may have writable frames
        uint64_t serial = 0;
        int64_t sinceUs = 0;
        bool welcomed = false;
        bool ready = false;
        bool blocked = false; // its queue is full
        bool watched = false; // for room in it
        int listed = -1;
        uint32_t maxLocks = 0; // words of its control page that count
        SharedMemory control;
        std::vector<uint32_t> sent; // memory generation of every slot as told to it
        bool wantsDmabufs = false;
        bool dmabufsComplete = false;      // it was told that it has all
        std::vector<uint32_t> sentDmabufs; // memory generation of every slot whose DMA-buf it has
    };
    struct Retired
    {
        Mapping control;
        uint64_t scan = 0;
    };

    void run() noexcept;
    void handleEvents(int timeoutMs);
    void beat();
    void accept();
    void handleConnection(size_t index, uint32_t events, bool peerDied);
    bool receive(Connection &connection);
    bool welcome(Connection &connection);
    void refuse(Connection &connection, int code, const char *text);
    bool sendState(Connection &connection);
    bool tell(size_t index);
    int sendSlots(Connection &connection, const std::vector<uint32_t> &changed, size_t from);
    void watch(const Connection &connection, size_t index, bool writable);

    // DMA-bufs; writer_dmabufs.cpp.
    bool mayHaveDmabufs(const Connection &connection) const;
    void describeMemory(const Connection &connection, WelcomeMessage *message) const;
    bool receiveWant(Connection &connection, const Message &message) const;
    int sendDmabufs(Connection &connection);
    void disconnect(size_t index);
    void freeRetired();

    // Supply of slots; writer_supply.cpp.
    struct Census
    {
        uint32_t populated = 0;
        uint32_t unexported = 0; // of those, without a DMA-buf
        uint32_t freeSlots = 0;
        uint32_t comingSlots = 0; // poisoned, and nobody who is listed locks them
        uint32_t locks = 0;
        size_t worst = SIZE_MAX; // connection that pins most, SIZE_MAX: none does
        uint32_t worstPins = 0;
    };
    void supplySlots();
    Census census() const;
    bool inHistory(uint32_t slot) const;
    static uint32_t collectLocks(const Connection &connection, SlotSet *slots);
    SlotSet lockedSlots() const;
    void freeReturnedSlots();
    bool addSlot();
    void cutOff(size_t index);
    void publishStatistics(const Census &now);

    Store &m_store;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    int m_listen = -1;
    UniqueFd m_epoll;
    UniqueFd m_event;

    // Service thread only.
    std::vector<std::unique_ptr<Connection>> m_connections; // by index, null = free
    std::vector<Retired> m_retired;
    uint64_t m_serial = 0;
    int64_t m_nextBeatUs = 0;
    bool m_listening = false;
};

} // namespace shm

#endif
