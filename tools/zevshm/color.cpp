#include "color.h"

#include "ffmpeg.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <zevshm-pattern/canvas.h>

namespace zevshm {

namespace {

bool isRgb(const AVFrame &frame)
{
    const AVPixFmtDescriptor *descriptor = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    return descriptor && (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL));
}

bool isJpegFormat(int format)
{
    return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P ||
           format == AV_PIX_FMT_YUVJ440P || format == AV_PIX_FMT_YUVJ411P;
}

} // namespace

shm_matrix defaultMatrix(int height)
{
    return matrixForHeight(height) == Matrix::Bt709 ? SHM_MATRIX_BT709 : SHM_MATRIX_BT601;
}

shm_color_t colorOf(const AVFrame &frame)
{
    shm_color_t color{};
    switch (frame.colorspace) {
    case AVCOL_SPC_BT709:
        color.matrix = SHM_MATRIX_BT709;
        break;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
    case AVCOL_SPC_FCC:
        color.matrix = SHM_MATRIX_BT601;
        break;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
        color.matrix = SHM_MATRIX_BT2020;
        break;
    default:
        color.matrix = static_cast<uint8_t>(defaultMatrix(frame.height));
        break;
    }
    const bool full = frame.color_range == AVCOL_RANGE_JPEG || isRgb(frame) || isJpegFormat(frame.format);
    color.range = full ? SHM_RANGE_FULL : SHM_RANGE_LIMITED;
    switch (frame.color_trc) {
    case AVCOL_TRC_BT709:
    case AVCOL_TRC_SMPTE170M:
    case AVCOL_TRC_BT2020_10:
    case AVCOL_TRC_BT2020_12:
        color.transfer = SHM_TRANSFER_BT709;
        break;
    case AVCOL_TRC_IEC61966_2_1:
        color.transfer = SHM_TRANSFER_SRGB;
        break;
    case AVCOL_TRC_SMPTE2084:
        color.transfer = SHM_TRANSFER_PQ;
        break;
    case AVCOL_TRC_ARIB_STD_B67:
        color.transfer = SHM_TRANSFER_HLG;
        break;
    default:
        color.transfer = SHM_TRANSFER_UNKNOWN;
        break;
    }
    switch (frame.chroma_location) {
    case AVCHROMA_LOC_CENTER:
        color.siting = SHM_SITING_CENTER;
        break;
    case AVCHROMA_LOC_TOPLEFT:
        color.siting = SHM_SITING_TOPLEFT;
        break;
    default:
        color.siting = SHM_SITING_LEFT;
        break;
    }
    return color;
}

void setColor(AVFrame &frame, const shm_color_t &color)
{
    static constexpr AVColorSpace matrices[] = {AVCOL_SPC_UNSPECIFIED, AVCOL_SPC_SMPTE170M, AVCOL_SPC_BT709,
                                                AVCOL_SPC_BT2020_NCL};
    static constexpr AVColorPrimaries primaries[] = {AVCOL_PRI_UNSPECIFIED, AVCOL_PRI_UNSPECIFIED,
                                                     AVCOL_PRI_BT709, AVCOL_PRI_BT2020};
    static constexpr AVColorTransferCharacteristic transfers[] = {AVCOL_TRC_UNSPECIFIED, AVCOL_TRC_BT709,
                                                                  AVCOL_TRC_IEC61966_2_1, AVCOL_TRC_SMPTE2084,
                                                                  AVCOL_TRC_ARIB_STD_B67};
    static constexpr AVChromaLocation sitings[] = {AVCHROMA_LOC_UNSPECIFIED, AVCHROMA_LOC_LEFT,
                                                   AVCHROMA_LOC_CENTER, AVCHROMA_LOC_TOPLEFT};
    const int matrix = color.matrix <= SHM_MATRIX_BT2020 ? color.matrix : 0;
    frame.colorspace = matrices[matrix];
    frame.color_primaries = primaries[matrix];
    frame.color_trc = transfers[color.transfer <= SHM_TRANSFER_HLG ? color.transfer : 0];
    frame.chroma_location = sitings[color.siting <= SHM_SITING_TOPLEFT ? color.siting : 0];
    frame.color_range = color.range == SHM_RANGE_LIMITED ? AVCOL_RANGE_MPEG : AVCOL_RANGE_JPEG;
}

const int *swsCoefficients(int matrix)
{
    switch (matrix) {
    case SHM_MATRIX_BT709:
        return sws_getCoefficients(SWS_CS_ITU709);
    case SHM_MATRIX_BT2020:
        return sws_getCoefficients(SWS_CS_BT2020);
    default:
        return sws_getCoefficients(SWS_CS_ITU601);
    }
}

} // namespace zevshm
