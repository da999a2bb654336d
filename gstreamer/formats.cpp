#include "formats.h"

namespace zevgst {

SHM_PIXEL_FORMAT pixelFormat(GstVideoFormat format)
{
    switch (format) {
    case GST_VIDEO_FORMAT_I420:
        return SHM_PIXEL_FORMAT_YUV420P;
    case GST_VIDEO_FORMAT_YV12:
        return SHM_PIXEL_FORMAT_YVU420P;
    case GST_VIDEO_FORMAT_NV12:
        return SHM_PIXEL_FORMAT_NV12;
    default:
        return SHM_PIXEL_FORMAT_NONE;
    }
}

GstVideoFormat videoFormat(int pixelFormat)
{
    switch (pixelFormat) {
    case SHM_PIXEL_FORMAT_YUV420P:
        return GST_VIDEO_FORMAT_I420;
    case SHM_PIXEL_FORMAT_YVU420P:
        return GST_VIDEO_FORMAT_YV12;
    case SHM_PIXEL_FORMAT_NV12:
        return GST_VIDEO_FORMAT_NV12;
    default:
        return GST_VIDEO_FORMAT_UNKNOWN;
    }
}

shm_color_t colorOf(const GstVideoInfo &info)
{
    shm_color_t color = {};
    switch (info.colorimetry.matrix) {
    case GST_VIDEO_COLOR_MATRIX_BT709:
        color.matrix = SHM_MATRIX_BT709;
        break;
    case GST_VIDEO_COLOR_MATRIX_BT2020:
        color.matrix = SHM_MATRIX_BT2020;
        break;
    case GST_VIDEO_COLOR_MATRIX_BT601:
    case GST_VIDEO_COLOR_MATRIX_FCC:
        color.matrix = SHM_MATRIX_BT601;
        break;
    default:
        color.matrix = info.height >= 720 ? SHM_MATRIX_BT709 : SHM_MATRIX_BT601;
        break;
    }
    color.range = info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255 ? SHM_RANGE_FULL : SHM_RANGE_LIMITED;
    switch (info.colorimetry.transfer) {
    case GST_VIDEO_TRANSFER_BT709:
    case GST_VIDEO_TRANSFER_BT601:
    case GST_VIDEO_TRANSFER_BT2020_10:
    case GST_VIDEO_TRANSFER_BT2020_12:
        color.transfer = SHM_TRANSFER_BT709;
        break;
    case GST_VIDEO_TRANSFER_SRGB:
        color.transfer = SHM_TRANSFER_SRGB;
        break;
    case GST_VIDEO_TRANSFER_SMPTE2084:
        color.transfer = SHM_TRANSFER_PQ;
        break;
    case GST_VIDEO_TRANSFER_ARIB_STD_B67:
        color.transfer = SHM_TRANSFER_HLG;
        break;
    default:
        color.transfer = SHM_TRANSFER_UNKNOWN;
        break;
    }
    if ((info.chroma_site & GST_VIDEO_CHROMA_SITE_COSITED) == GST_VIDEO_CHROMA_SITE_COSITED)
        color.siting = SHM_SITING_TOPLEFT;
    else if ((info.chroma_site & GST_VIDEO_CHROMA_SITE_H_COSITED) != 0)
        color.siting = SHM_SITING_LEFT;
    else if ((info.chroma_site & GST_VIDEO_CHROMA_SITE_NONE) != 0)
        color.siting = SHM_SITING_CENTER;
    return color;
}

void setColor(GstVideoInfo *info, const shm_color_t &color)
{
    switch (color.matrix) {
    case SHM_MATRIX_BT601:
        info->colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT601;
        info->colorimetry.primaries = GST_VIDEO_COLOR_PRIMARIES_SMPTE170M;
        break;
    case SHM_MATRIX_BT709:
        info->colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT709;
        info->colorimetry.primaries = GST_VIDEO_COLOR_PRIMARIES_BT709;
        break;
    case SHM_MATRIX_BT2020:
        info->colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT2020;
        info->colorimetry.primaries = GST_VIDEO_COLOR_PRIMARIES_BT2020;
        break;
    default:
        break;
    }
    // Samples of a store are of full range unless it says otherwise.
    info->colorimetry.range =
        color.range == SHM_RANGE_LIMITED ? GST_VIDEO_COLOR_RANGE_16_235 : GST_VIDEO_COLOR_RANGE_0_255;
    switch (color.transfer) {
    case SHM_TRANSFER_BT709:
        info->colorimetry.transfer = color.matrix == SHM_MATRIX_BT601    ? GST_VIDEO_TRANSFER_BT601
                                     : color.matrix == SHM_MATRIX_BT2020 ? GST_VIDEO_TRANSFER_BT2020_10
                                                                         : GST_VIDEO_TRANSFER_BT709;
        break;
    case SHM_TRANSFER_SRGB:
        info->colorimetry.transfer = GST_VIDEO_TRANSFER_SRGB;
        break;
    case SHM_TRANSFER_PQ:
        info->colorimetry.transfer = GST_VIDEO_TRANSFER_SMPTE2084;
        break;
    case SHM_TRANSFER_HLG:
        info->colorimetry.transfer = GST_VIDEO_TRANSFER_ARIB_STD_B67;
        break;
    default:
        break;
    }
    switch (color.siting) {
    case SHM_SITING_LEFT:
        info->chroma_site = GST_VIDEO_CHROMA_SITE_H_COSITED;
        break;
    case SHM_SITING_CENTER:
        info->chroma_site = GST_VIDEO_CHROMA_SITE_NONE;
        break;
    case SHM_SITING_TOPLEFT:
        info->chroma_site = GST_VIDEO_CHROMA_SITE_COSITED;
        break;
    default:
        break;
    }
}

} // namespace zevgst
