// Names: of stores (what is allowed) and of the enumerations' values.
#include "error.h"

#include <cstring>

using namespace shm;

int shm_check_name(const char *name, shm_error_t *error)
{
    static const char allowed[] = "a name has 1 to 64 of the characters A-Z a-z 0-9 . _ - and does not start "
                                  "with a dot";
    if (name == nullptr)
        return fail(error, EINVAL, "store name missing: %s", allowed);
    const size_t length = strnlen(name, SHM_NAME_MAX + 1);
    if (length == 0)
        return fail(error, EINVAL, "store name is empty: %s", allowed);
    if (length > SHM_NAME_MAX)
        return fail(error, EINVAL, "store name \"%.16s...\" is too long: %s", name, allowed);
    if (name[0] == '.')
        return fail(error, EINVAL, "store name \"%s\" starts with a dot: %s", name, allowed);
    for (size_t i = 0; i < length; ++i) {
        const char c = name[i];
        const bool good = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                          c == '.' || c == '_' || c == '-';
        // The name itself is not repeated: it may hold anything, a terminal's control sequences included.
        if (!good) {
            return fail(error, EINVAL, "store name has the character 0x%02x at position %zu: %s",
                        static_cast<unsigned char>(c), i, allowed);
        }
    }
    return 0;
}

const char *shm_pixel_format_name(int pixel_format)
{
    switch (pixel_format) {
    case SHM_PIXEL_FORMAT_YUV420P:
        return "yuv420p";
    case SHM_PIXEL_FORMAT_YVU420P:
        return "yvu420p";
    case SHM_PIXEL_FORMAT_NV12:
        return "nv12";
    default:
        return "unknown";
    }
}

const char *shm_matrix_name(int matrix)
{
    switch (matrix) {
    case SHM_MATRIX_BT601:
        return "bt601";
    case SHM_MATRIX_BT709:
        return "bt709";
    case SHM_MATRIX_BT2020:
        return "bt2020";
    default:
        return "unknown";
    }
}

const char *shm_range_name(int range)
{
    switch (range) {
    case SHM_RANGE_FULL:
        return "full";
    case SHM_RANGE_LIMITED:
        return "limited";
    default:
        return "unknown";
    }
}

const char *shm_transfer_name(int transfer)
{
    switch (transfer) {
    case SHM_TRANSFER_BT709:
        return "bt709";
    case SHM_TRANSFER_SRGB:
        return "srgb";
    case SHM_TRANSFER_PQ:
        return "pq";
    case SHM_TRANSFER_HLG:
        return "hlg";
    default:
        return "unknown";
    }
}

const char *shm_siting_name(int siting)
{
    switch (siting) {
    case SHM_SITING_LEFT:
        return "left";
    case SHM_SITING_CENTER:
        return "center";
    case SHM_SITING_TOPLEFT:
        return "topleft";
    default:
        return "unknown";
    }
}

const char *shm_capture_name(int capture)
{
    switch (capture) {
    case SHM_CAPTURE_COPIED:
        return "copied";
    case SHM_CAPTURE_DMABUF:
        return "dmabuf";
    case SHM_CAPTURE_USERPTR:
        return "userptr";
    default:
        return "none";
    }
}
