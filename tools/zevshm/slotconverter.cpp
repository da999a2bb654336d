#include "slotconverter.h"

#include "color.h"
#include "failure.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <cstring>

namespace zevshm {

namespace {

// The JPEG formats are the plain ones with full range said in the format; said in the options instead,
// swscale does not complain.
AVPixelFormat plainFormat(int format)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P:
        return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
        return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
        return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P:
        return AV_PIX_FMT_YUV440P;
    default:
        return static_cast<AVPixelFormat>(format);
    }
}

// Both planar formats: the store names the planes in the order Y, U, V however they lie in memory.
AVPixelFormat slotFormat(int pixelFormat)
{
    return pixelFormat == SHM_PIXEL_FORMAT_NV12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
}

void copyPlanes(const AVFrame &frame, const shm_writer_frame_t &slot, AVPixelFormat format)
{
    for (int plane = 0; plane < av_pix_fmt_count_planes(format); ++plane) {
        const int bytes = av_image_get_linesize(format, slot.width, plane);
        const int rows = plane == 0 ? slot.height : (slot.height + 1) / 2;
        av_image_copy_plane(slot.planes[plane], slot.strides[plane], frame.data[plane], frame.linesize[plane],
                            bytes, rows);
    }
}

} // namespace

void SlotConverter::prepare(const Key &key)
{
    if (m_scaler && std::memcmp(&key, &m_key, sizeof key) == 0)
        return;
    m_scaler.reset(sws_alloc_context());
    if (!m_scaler)
        throw Failure(ExitResources,
                      "no memory for a color conversion; end other programs or use a smaller --size");
    // The ranges must be known before the context is initialized: swscale chooses its shortcuts there, and
    // the shortcut between two 4:2:0 formats does not convert the range.
    SwsContext *scaler = m_scaler.get();
    av_opt_set_int(scaler, "srcw", key.sourceWidth, 0);
    av_opt_set_int(scaler, "srch", key.sourceHeight, 0);
    av_opt_set_int(scaler, "src_format", key.sourceFormat, 0);
    av_opt_set_int(scaler, "dstw", key.width, 0);
    av_opt_set_int(scaler, "dsth", key.height, 0);
    av_opt_set_int(scaler, "dst_format", key.format, 0);
    av_opt_set_int(scaler, "src_range", key.source.range == SHM_RANGE_FULL, 0);
    av_opt_set_int(scaler, "dst_range", key.store.range == SHM_RANGE_FULL, 0);
    av_opt_set_int(scaler, "sws_flags", SWS_BICUBIC | SWS_ACCURATE_RND, 0);
    if (sws_init_context(scaler, nullptr, nullptr) < 0) {
        m_scaler.reset();
        const char *name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(key.sourceFormat));
        throw Failure(ExitMedia, std::string("frames of pixel format ") + (name ? name : "unknown") +
                                     " cannot be converted; convert the input to yuv420p first");
    }
    sws_setColorspaceDetails(scaler, swsCoefficients(key.source.matrix), key.source.range == SHM_RANGE_FULL,
                             swsCoefficients(key.store.matrix), key.store.range == SHM_RANGE_FULL, 0, 1 << 16,
                             1 << 16);
    m_key = key;
}

void SlotConverter::convert(const AVFrame &frame, const shm_writer_frame_t &slot, int pixelFormat,
                            const shm_color_t &store)
{
    Key key;
    std::memset(&key, 0, sizeof key); // compared as bytes
    key.sourceWidth = frame.width;
    key.sourceHeight = frame.height;
    key.sourceFormat = plainFormat(frame.format);
    key.width = slot.width;
    key.height = slot.height;
    key.format = slotFormat(pixelFormat);
    key.source = colorOf(frame);
    key.store = store;
    if (key.sourceWidth == key.width && key.sourceHeight == key.height && key.sourceFormat == key.format &&
        key.source.range == key.store.range) {
        copyPlanes(frame, slot, static_cast<AVPixelFormat>(key.format));
        return;
    }
    prepare(key);
    uint8_t *planes[4] = {slot.planes[0], slot.planes[1], slot.planes[2], nullptr};
    const int strides[4] = {slot.strides[0], slot.strides[1], slot.strides[2], 0};
    sws_scale(m_scaler.get(), frame.data, frame.linesize, 0, frame.height, planes, strides);
}

} // namespace zevshm
