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

int planeRows(int plane, int height)
{
    return plane == 0 ? height : (height + 1) / 2;
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

void SlotConverter::write(const AVFrame &frame, const Target &target, const shm_color_t &store)
{
    Key key;
    std::memset(&key, 0, sizeof key); // compared as bytes
    key.sourceWidth = frame.width;
    key.sourceHeight = frame.height;
    key.sourceFormat = plainFormat(frame.format);
    key.width = target.width;
    key.height = target.height;
    key.format = target.format;
    key.source = colorOf(frame);
    key.store = store;
    if (key.sourceWidth == key.width && key.sourceHeight == key.height && key.sourceFormat == key.format &&
        key.source.range == key.store.range) {
        for (int plane = 0; plane < av_pix_fmt_count_planes(target.format); ++plane)
            av_image_copy_plane(
                target.planes[plane], target.strides[plane], frame.data[plane], frame.linesize[plane],
                av_image_get_linesize(target.format, target.width, plane), planeRows(plane, target.height));
        return;
    }
    prepare(key);
    sws_scale(m_scaler.get(), frame.data, frame.linesize, 0, frame.height, target.planes, target.strides);
}

const SlotConverter::Target &SlotConverter::lyingTarget(int width, int height, AVPixelFormat format)
{
    if (m_lying && m_lying->width == width && m_lying->height == height && m_lying->format == format)
        return m_lyingTarget;
    m_lying.reset(av_frame_alloc());
    if (m_lying) {
        m_lying->width = width;
        m_lying->height = height;
        m_lying->format = format;
    }
    if (!m_lying || av_frame_get_buffer(m_lying.get(), 0) < 0)
        throw Failure(ExitResources,
                      "no memory to turn a picture; end other programs or use a smaller --size");
    m_lyingTarget = {{m_lying->data[0], m_lying->data[1], m_lying->data[2], nullptr},
                     {m_lying->linesize[0], m_lying->linesize[1], m_lying->linesize[2], 0},
                     width,
                     height,
                     format};
    return m_lyingTarget;
}

void SlotConverter::convert(const AVFrame &frame, const shm_writer_frame_t &slot, int pixelFormat,
                            const shm_color_t &store, Turn turn)
{
    const AVPixelFormat format = slotFormat(pixelFormat);
    if (turn == Turn::None) {
        write(frame,
              {{slot.planes[0], slot.planes[1], slot.planes[2], nullptr},
               {slot.strides[0], slot.strides[1], slot.strides[2], 0},
               slot.width,
               slot.height,
               format},
              store);
        return;
    }
    const Target &lying = swapsSides(turn) ? lyingTarget(slot.height, slot.width, format)
                                           : lyingTarget(slot.width, slot.height, format);
    write(frame, lying, store);
    for (int plane = 0; plane < av_pix_fmt_count_planes(format); ++plane) {
        const int columns = plane == 0 ? lying.width : (lying.width + 1) / 2;
        const int sampleBytes = plane > 0 && format == AV_PIX_FMT_NV12 ? 2 : 1;
        turnPlane(lying.planes[plane], lying.strides[plane], columns, planeRows(plane, lying.height),
                  sampleBytes, turn, slot.planes[plane], slot.strides[plane]);
    }
}

} // namespace zevshm
