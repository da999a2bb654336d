#ifndef ZEVQTMM_TESTS_PAYLOADGUARD_H
#define ZEVQTMM_TESTS_PAYLOADGUARD_H

#include <cstddef>

/*!
 * Counts the pages of frames that this process reads or writes: their mappings are made inaccessible, and
 * the first touch of a page is noted before the access goes on. What a driver maps for itself, standing in
 * for a device, is another mapping and not counted.
 *
 * Usage: guard() the frames' memory, work with them, look at touchedPages().
 *
 * Threads: guard() in one; touches are counted in all. One object at a time. Errors: guard() returns false
 * for memory that is not mapped.
 */
class PayloadGuard
{
public:
    PayloadGuard();
    ~PayloadGuard();
    PayloadGuard(const PayloadGuard &) = delete;
    PayloadGuard &operator=(const PayloadGuard &) = delete;

    /*! Makes the whole mapping that `address` lies in inaccessible; again: nothing new. */
    bool guard(const void *address);
    int touchedPages() const;
    std::size_t guardedBytes() const;
};

#endif
