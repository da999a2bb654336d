#include "pixelformat.h"

#include <limits>

namespace zevmm {
namespace v4l2 {

namespace {

constexpr std::uint32_t largestSide = 32768;

// The encoding that V4L2 says a color space has when the driver names none.
ColorEncoding encodingOf(std::uint32_t colorspace, std::uint32_t encoding)
{
    switch (encoding) {
    case V4L2_YCBCR_ENC_601:
    case V4L2_YCBCR_ENC_XV601:
        return ColorEncoding::Bt601;
    case V4L2_YCBCR_ENC_709:
    case V4L2_YCBCR_ENC_XV709:
    case V4L2_YCBCR_ENC_SMPTE240M:
        return ColorEncoding::Bt709;
    case V4L2_YCBCR_ENC_BT2020:
    case V4L2_YCBCR_ENC_BT2020_CONST_LUM:
        return ColorEncoding::Bt2020;
    default:
        break;
    }
    switch (colorspace) {
    case V4L2_COLORSPACE_REC709:
    case V4L2_COLORSPACE_DCI_P3:
    case V4L2_COLORSPACE_SMPTE240M:
        return ColorEncoding::Bt709;
    case V4L2_COLORSPACE_BT2020:
        return ColorEncoding::Bt2020;
    default:
        return ColorEncoding::Bt601;
    }
}

bool isFullRange(std::uint32_t colorspace, std::uint32_t quantization)
{
    if (quantization == V4L2_QUANTIZATION_DEFAULT)
        return colorspace == V4L2_COLORSPACE_JPEG;
    return quantization == V4L2_QUANTIZATION_FULL_RANGE;
}

} // namespace

std::string fourccText(std::uint32_t code)
{
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto character = static_cast<char>((code >> shift) & 0x7F);
        text += character >= ' ' && character != 0x7F ? character : '?';
    }
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return (code & v4l2_fourcc_be(0, 0, 0, 0)) != 0 ? text + "-BE" : text;
}

void readColors(const v4l2_format &format, ColorEncoding *encoding, bool *fullRange)
{
    const bool multiplanar = format.type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    const v4l2_pix_format &single = format.fmt.pix;
    const v4l2_pix_format_mplane &multi = format.fmt.pix_mp;
    const auto colorspace = multiplanar ? multi.colorspace : single.colorspace;
    *encoding = encodingOf(colorspace, multiplanar ? std::uint32_t(multi.ycbcr_enc) : single.ycbcr_enc);
    *fullRange =
        isFullRange(colorspace, multiplanar ? std::uint32_t(multi.quantization) : single.quantization);
}

bool readFormat(const v4l2_format &answer, Negotiated *negotiated, std::string *why)
{
    const bool multiplanar = answer.type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    const v4l2_pix_format &single = answer.fmt.pix;
    const v4l2_pix_format_mplane &multi = answer.fmt.pix_mp;
    CaptureFormat format;
    format.width = multiplanar ? multi.width : single.width;
    format.height = multiplanar ? multi.height : single.height;
    format.pixelFormat = multiplanar ? multi.pixelformat : single.pixelformat;
    if (format.width < 2 || format.height < 2 || format.width > largestSide || format.height > largestSide) {
        *why = "a size of " + std::to_string(format.width) + " x " + std::to_string(format.height);
        return false;
    }
    const bool separate = format.pixelFormat == V4L2_PIX_FMT_NV12M;
    const unsigned int memories = separate ? 2 : 1;
    if (multiplanar && multi.num_planes != memories) {
        *why = std::to_string(multi.num_planes) + " planes for " + fourccText(format.pixelFormat);
        return false;
    }
    // Drivers without padding may leave the stride out.
    const auto strideOf = [&](unsigned int plane) {
        const std::uint32_t stride = multiplanar ? multi.plane_fmt[plane].bytesperline : single.bytesperline;
        return stride != 0 ? stride : format.width;
    };
    format.strideBytes = strideOf(0);
    format.chromaStrideBytes = separate ? strideOf(1) : format.strideBytes;
    const std::uint32_t chromaWidth = (format.width + 1) / 2 * 2;
    if (format.strideBytes < format.width || format.chromaStrideBytes < chromaWidth ||
        format.strideBytes > 4 * largestSide || format.chromaStrideBytes > 4 * largestSide) {
        *why = "lines of " + std::to_string(format.strideBytes) + " bytes for " +
               std::to_string(format.width) + " pixels";
        return false;
    }
    const std::uint64_t lumaBytes = std::uint64_t(format.strideBytes) * format.height;
    const std::uint64_t chromaBytes = std::uint64_t(format.chromaStrideBytes) * ((format.height + 1) / 2);

    if (lumaBytes > std::numeric_limits<std::int32_t>::max()) { // EGL takes offsets of 32 bits
        *why = "a picture of " + std::to_string(lumaBytes) + " bytes";
        return false;
    }
    readColors(answer, &format.encoding, &format.fullRange);

    negotiated->format = format;
    negotiated->multiplanar = multiplanar;
    negotiated->memories = memories;
    negotiated->planes = {Plane{0, 0}, separate ? Plane{1, 0} : Plane{0, lumaBytes}};
    if (separate)
        negotiated->bytes = {lumaBytes, chromaBytes};
    else
        negotiated->bytes = {lumaBytes + chromaBytes, 0};
    for (unsigned int memory = 0; memory < memories; ++memory) {
        const std::uint32_t size = multiplanar ? multi.plane_fmt[memory].sizeimage : single.sizeimage;
        negotiated->sizes[memory] = size;
        if (size < negotiated->bytes[memory]) {
            *why =
                std::to_string(size) + " bytes for a picture of " + std::to_string(negotiated->bytes[memory]);
            return false;
        }
    }
    return true;
}

} // namespace v4l2
} // namespace zevmm
