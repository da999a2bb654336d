// Errors of the C interface: a negative errno, and one line for a person.
#ifndef SHM_ERROR_H
#define SHM_ERROR_H

#include <shm/shm_types.h>

#include <cerrno>
#include <exception>
#include <new>

namespace shm {

// Writes `code` (a positive errno) and the line into `error`, which may be null. Returns -code.
int fail(shm_error_t *error, int code, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Runs `body` at the edge of the C interface, which no exception may cross.
template <class Body>
int guarded(shm_error_t *error, Body &&body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return fail(error, ENOMEM, "out of memory; close something and try again");
    } catch (const std::exception &exception) {
        return fail(error, EIO, "internal error: %s; this is unexpected, please report it", exception.what());
    }
}

} // namespace shm

#endif
