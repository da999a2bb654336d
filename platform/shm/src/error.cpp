#include "error.h"

#include <cstdarg>
#include <cstdio>

namespace shm {

int fail(shm_error_t *error, int code, const char *format, ...)
{
    if (error != nullptr) {
        error->code = -code;
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(error->message, sizeof error->message, format, arguments);
        va_end(arguments);
    }
    return -code;
}

} // namespace shm
