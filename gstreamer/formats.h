// Between what caps say and what a store says of its pictures.
#ifndef ZEVGST_FORMATS_H
#define ZEVGST_FORMATS_H

#include <gst/video/video.h>
#include <shm/shm_types.h>

namespace zevgst {

// Raw video and audio that a store can carry, as text for pad templates.
#define ZEVGST_VIDEO_CAPS                                                                                    \
    "video/x-raw, format=(string){ I420, YV12, NV12 }, width=(int)[ 1, 16384 ], height=(int)[ 1, 16384 ], "  \
    "framerate=" GST_VIDEO_FPS_RANGE ", interlace-mode=(string)progressive"
#define ZEVGST_AUDIO_CAPS                                                                                    \
    "audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)[ 8000, 192000 ], "            \
    "channels=(int)[ 1, 8 ]"

// SHM_PIXEL_FORMAT_NONE for what a store does not carry.
SHM_PIXEL_FORMAT pixelFormat(GstVideoFormat format);
GstVideoFormat videoFormat(int pixelFormat);

shm_color_t colorOf(const GstVideoInfo &info);
// What a store does not state is left as the format and size have it by default.
void setColor(GstVideoInfo *info, const shm_color_t &color);

} // namespace zevgst

#endif
