#ifndef ZEVQTMM_TESTS_DMAMEMORY_H
#define ZEVQTMM_TESTS_DMAMEMORY_H

#include <QtCore/QByteArray>

#include <cstddef>

/*!
 * Memory with a DMA-buf descriptor, from the kernel's own allocators.
 *
 * Usage: construct, check isValid(), write to data() between beginWrite() and endWrite().
 *
 * Ownership: owns descriptors and mapping. Errors: isValid() false, with the reason in error().
 */
class DmaMemory
{
public:
    /*! `kind`: "udmabuf", or "dma-heap:NAME". */
    DmaMemory(const QByteArray &kind, size_t size);
    ~DmaMemory();
    DmaMemory(const DmaMemory &) = delete;
    DmaMemory &operator=(const DmaMemory &) = delete;

    bool isValid() const { return pixels != nullptr; }
    QByteArray error() const { return reason; }
    int descriptor() const { return dmabuf; }
    unsigned char *data() const { return pixels; }

    bool beginWrite();
    bool endWrite();

private:
    void makeUdmabuf();
    void allocateFromHeap(const QByteArray &heap);
    void mapFrom(int fd);
    void fail(const char *what);
    bool synchronize(unsigned long long flags);

    size_t bytes;
    int dmabuf = -1;
    unsigned char *pixels = nullptr;
    QByteArray reason;
};

#endif
