// What is asked of a device before it streams, what is made of its answers, and what is said when it is no
// use.
#include "zevmm_testing.h"

#include "pixelformat.h"

#include <cerrno>
#include <functional>

using namespace zevmm::v4l2;

namespace {

// Attribute and value, as in the list.
int valueOf(const std::vector<int> &attributes, int name)
{
    for (std::size_t i = 0; i + 1 < attributes.size(); i += 2) {
        if (attributes[i] == name)
            return attributes[i + 1];
    }
    return -1;
}

struct Refusal
{
    const char *name;
    std::function<void(fake::Kernel &)> arrange;
    int error;
    const char *text; // whole
};

void PrintTo(const Refusal &refusal, std::ostream *stream)
{
    *stream << refusal.name;
}

class Setup : public StreamTest
{};
class Refusals : public StreamTest, public testing::WithParamInterface<Refusal>
{};

const char connectRemedy[] = "connect the camera, or name one that `v4l2-ctl --list-devices` lists";
const char listRemedy[] = "name a capture device: `v4l2-ctl --list-devices` lists them";
const char busyRemedy[] = "end the program that uses it: `fuser -v /dev/video0` names it";
const char storeRemedy[] =
    "publish it into a store, which converts (`zevshm publish NAME v4l2:/dev/video0`), and show that";
const char memoryRemedy[] =
    "the driver has no memory for its buffers: choose a smaller size with `v4l2-ctl -d "
    "/dev/video0 --set-fmt-video=width=640,height=480`";

std::string text(const std::string &what, const char *remedy)
{
    return "/dev/video0: " + what + "; " + remedy;
}

} // namespace

TEST_F(Setup, opensNothingBefore)
{
    EXPECT_EQ(kernel.calls, 0);
    EXPECT_EQ(stream->device(), "/dev/video0");
    EXPECT_EQ(stream->format().width, 0u);
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_EQ(read(), nullptr);
}

TEST_F(Setup, takesNv12AtThePresentSize)
{
    kernel.driver.width = 66;
    kernel.driver.stride = 128;
    kernel.driver.interval = {1001, 30000};
    stream->setup();
    const CaptureFormat format = stream->format();
    EXPECT_EQ(format.width, 66u);
    EXPECT_EQ(format.height, 36u);
    EXPECT_EQ(format.pixelFormat, std::uint32_t(V4L2_PIX_FMT_NV12));
    EXPECT_EQ(format.strideBytes, 128u);
    EXPECT_EQ(format.frameInterval, 33366);
    EXPECT_EQ(kernel.exports, std::vector<int>(6, 1)); // each buffer once
}

TEST_F(Setup, aSecondCallDoesNothing)
{
    stream->setup();
    const int calls = kernel.calls;
    stream->setup();
    EXPECT_EQ(kernel.calls, calls);
}

TEST_F(Setup, prefersOneDescriptorAndTakesTwo)
{
    kernel.driver.multiplanar = true;
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12M, V4L2_PIX_FMT_NV12};
    stream->setup();
    EXPECT_EQ(stream->format().pixelFormat, std::uint32_t(V4L2_PIX_FMT_NV12));
    stream = std::make_unique<Stream>("/dev/video0", kernel, [] {});
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12M};
    stream->setup();
    EXPECT_EQ(stream->format().pixelFormat, std::uint32_t(V4L2_PIX_FMT_NV12M));
}

TEST_F(Setup, keepsTwoDescriptorsWhereTheyAreSet)
{
    kernel.driver.multiplanar = true;
    kernel.driver.formats = {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_NV12M};
    kernel.current.fmt.pix_mp.pixelformat = V4L2_PIX_FMT_NV12M;
    stream->setup();
    EXPECT_EQ(stream->format().pixelFormat, std::uint32_t(V4L2_PIX_FMT_NV12M));
}

TEST_F(Setup, leavesTheFormatOfADeviceThatHasNoNv12)
{
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV};
    EXPECT_THROW(stream->setup(), std::system_error);
    EXPECT_EQ(kernel.callsOf[VIDIOC_S_FMT], 0);
}

TEST_F(Setup, asksForAsManyBuffersAsTheDriverNeedsBesideTheReaders)
{
    kernel.driver.leastBuffers = 9;
    stream->setup();
    EXPECT_EQ(kernel.exports.size(), 12u);
}

TEST_F(Setup, goesOnWithFourBuffers)
{
    kernel.driver.mostBuffers = 4;
    stream->setup();
    EXPECT_EQ(kernel.exports.size(), 4u);
}

TEST_F(Setup, attributesOfOneDescriptor)
{
    kernel.driver.stride = 128;
    setUpImages();
    EXPECT_EQ(fake::Egl::alive(), 6);
    stream->start();
    fillAndStep();
    const std::vector<int> attributes = fake::Egl::attributesOf(read());
    const int fd = valueOf(attributes, 0x3272);
    EXPECT_EQ(attributes,
              (std::vector<int>{0x30D2, 1,      0x3057, 64,     0x3056, 36,       0x3271, 0x3231564E,
                                0x327B, 0x327F, 0x327C, 0x3283, 0x3272, fd,       0x3273, 0,
                                0x3274, 128,    0x3275, fd,     0x3276, 128 * 36, 0x3277, 128}));
    end();
}

TEST_F(Setup, attributesOfTwoDescriptors)
{
    kernel.driver.multiplanar = true;
    kernel.driver.formats = {V4L2_PIX_FMT_NV12M};
    begin();
    fillAndStep();
    const std::vector<int> attributes = fake::Egl::attributesOf(read());
    EXPECT_EQ(valueOf(attributes, 0x3271), 0x3231564E); // NV12 there, too
    EXPECT_GE(valueOf(attributes, 0x3272), 100000);
    EXPECT_GE(valueOf(attributes, 0x3275), 100000);
    EXPECT_NE(valueOf(attributes, 0x3275), valueOf(attributes, 0x3272));
    EXPECT_EQ(valueOf(attributes, 0x3273), 0);
    EXPECT_EQ(valueOf(attributes, 0x3276), 0);
    EXPECT_EQ(valueOf(attributes, 0x3277), 64);
    end();
}

TEST_F(Setup, aStrideThatIsLeftOutIsTheWidth)
{
    kernel.driver.stride = 0;
    stream->setup();
    EXPECT_EQ(stream->format().strideBytes, 64u);
}

TEST_F(Setup, anOddHeightHasHalfALineOfChromaMore)
{
    kernel.driver.height = 37;
    begin();
    fillAndStep();
    EXPECT_EQ(valueOf(fake::Egl::attributesOf(read()), 0x3276), 64 * 37);
    end();
}

TEST_F(Setup, createsNoImagesTwice)
{
    setUpImages();
    stream->createImages(fake::Egl::display(), fake::Egl::create);
    EXPECT_EQ(fake::Egl::created(), 6);
    stream->destroyImages(fake::Egl::display(), fake::Egl::destroy);
    EXPECT_EQ(fake::Egl::alive(), 0);
}

TEST_F(Setup, exportsEachBufferOnceAlsoWhenImagesAreMadeAgain)
{
    for (int i = 0; i < 3; ++i) {
        begin();
        fillAndStep();
        EXPECT_NE(read(), nullptr);
        end();
        EXPECT_EQ(fake::Egl::alive(), 0);
    }
    EXPECT_EQ(kernel.exports, std::vector<int>(6, 1));
}

TEST_F(Setup, saysWhenEglMakesNoImageAndKeepsThoseThatItMade)
{
    fake::Egl::failFrom(3);
    stream->setup();
    try {
        stream->createImages(fake::Egl::display(), fake::Egl::create);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(),
                     "/dev/video0: EGL makes no image of the camera's buffers (NV12, 64 x 36); the "
                     "GPU's driver must offer EGL_EXT_image_dma_buf_import and import NV12 from this "
                     "device");
    }
    EXPECT_EQ(fake::Egl::alive(), 3);
    fake::Egl::failFrom(-1);
    stream->createImages(fake::Egl::display(), fake::Egl::create);
    EXPECT_EQ(fake::Egl::alive(), 6);
    end();
    EXPECT_EQ(fake::Egl::alive(), 0);
}

TEST_F(Setup, refusesTheWrongOrder)
{
    EXPECT_THROW(stream->createImages(fake::Egl::display(), fake::Egl::create), std::logic_error);
    EXPECT_THROW(stream->start(), std::logic_error);
    stream->setup();
    EXPECT_THROW(stream->start(), std::logic_error);
    EXPECT_THROW(stream->createImages(nullptr, fake::Egl::create), std::invalid_argument);
    EXPECT_THROW(stream->createImages(fake::Egl::display(), nullptr), std::invalid_argument);
    setUpImages();
    char other;
    EXPECT_THROW(stream->createImages(&other, fake::Egl::create), std::logic_error);
    stream->stop();
    end();
}

struct Colors
{
    const char *name;
    std::uint32_t colorspace;
    std::uint32_t encoding;
    std::uint32_t quantization;
    int expectedEncoding;
    int expectedRange;
};

class ColorHints : public StreamTest, public testing::WithParamInterface<Colors>
{};

TEST_P(ColorHints, followTheDriver)
{
    kernel.driver.multiplanar = GetParam().colorspace % 2 == 0; // either flavour has the fields elsewhere
    kernel.driver.colorspace = GetParam().colorspace;
    kernel.driver.encoding = GetParam().encoding;
    kernel.driver.quantization = GetParam().quantization;
    begin();
    fillAndStep();
    const std::vector<int> attributes = fake::Egl::attributesOf(read());
    EXPECT_EQ(valueOf(attributes, 0x327B), GetParam().expectedEncoding);
    EXPECT_EQ(valueOf(attributes, 0x327C), GetParam().expectedRange);
    end();
}

constexpr int bt601 = 0x327F, bt709 = 0x3280, bt2020 = 0x3281, full = 0x3282, narrow = 0x3283;
INSTANTIATE_TEST_SUITE_P(
    All, ColorHints,
    testing::Values(Colors{"Srgb", V4L2_COLORSPACE_SRGB, 0, 0, bt601, narrow},
                    Colors{"Smpte170m", V4L2_COLORSPACE_SMPTE170M, 0, 0, bt601, narrow},
                    Colors{"Jpeg", V4L2_COLORSPACE_JPEG, 0, 0, bt601, full},
                    Colors{"Rec709", V4L2_COLORSPACE_REC709, 0, 0, bt709, narrow},
                    Colors{"DciP3", V4L2_COLORSPACE_DCI_P3, 0, 0, bt709, narrow},
                    Colors{"Bt2020", V4L2_COLORSPACE_BT2020, 0, 0, bt2020, narrow},
                    Colors{"Unknown", 77, 0, 0, bt601, narrow},
                    Colors{"EncodingWins", V4L2_COLORSPACE_SRGB, V4L2_YCBCR_ENC_709, 0, bt709, narrow},
                    Colors{"Encoding601", V4L2_COLORSPACE_REC709, V4L2_YCBCR_ENC_601, 0, bt601, narrow},
                    Colors{"Encoding2020", V4L2_COLORSPACE_REC709, V4L2_YCBCR_ENC_BT2020, 0, bt2020, narrow},
                    Colors{"RangeWins", V4L2_COLORSPACE_REC709, 0, V4L2_QUANTIZATION_FULL_RANGE, bt709, full},
                    Colors{"JpegNarrow", V4L2_COLORSPACE_JPEG, 0, V4L2_QUANTIZATION_LIM_RANGE, bt601,
                           narrow}),
    [](const testing::TestParamInfo<Colors> &tested) { return std::string(tested.param.name); });

TEST_P(Refusals, nameDeviceRequestAndRemedy)
{
    GetParam().arrange(kernel);
    try {
        stream->setup();
        ADD_FAILURE() << "no exception";
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().value(), GetParam().error);
        EXPECT_STREQ(error.what(), GetParam().text);
        EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    }
    EXPECT_EQ(kernel.openDescriptors.size(), 0u);

    // And when the fault is mended, it works.
    const auto fresh = [&] {
        kernel.driver = {};
        kernel.fault = {};
        kernel.openError = 0;
        kernel.isPresent = true;
    };
    fresh();
    stream->setup();
    EXPECT_EQ(stream->format().width, 64u);
}

const std::string noDevice = text("open failed: No such file or directory", connectRemedy);
const std::string forbidden =
    text("open failed: Permission denied",
         "join the group that may use it, usually: sudo usermod -aG video $USER, and log in again");
const std::string openBusy = text("open failed: Device or resource busy", busyRemedy);
const std::string noVideo =
    text("this is not a video4linux2 device (VIDIOC_QUERYCAP is unknown there)", listRemedy);
const std::string noCapture = text("this is not a capture device (VIDIOC_QUERYCAP)", listRemedy);
const std::string readOnly =
    text("the driver can only be read from, not stream buffers (VIDIOC_QUERYCAP)", "use another camera");
const std::string formatBusy = text("VIDIOC_S_FMT failed: Device or resource busy", busyRemedy);
const std::string buffersBusy = text("VIDIOC_REQBUFS failed: Device or resource busy", busyRemedy);
const std::string noMemory = text("VIDIOC_REQBUFS failed: Cannot allocate memory", memoryRemedy);
const std::string noNv12 =
    text("the camera offers no NV12 (VIDIOC_S_FMT), but YUYV, MJPG, YU12", storeRemedy);
const std::string nothing =
    text("the camera offers no NV12 (VIDIOC_S_FMT), but nothing that it names", storeRemedy);
const std::string noNv12Multiplanar = text(
    "the camera offers no NV12 (VIDIOC_S_FMT), but YM12",
    "use another camera, or a device node of its image processor: `v4l2-ctl -d /dev/video0 --list-formats` "
    "lists what each offers");
const std::string noExport =
    text("the driver cannot export its buffers as DMA-bufs (VIDIOC_EXPBUF)", storeRemedy);
const std::string fewBuffers =
    text("the driver answers VIDIOC_REQBUFS with 3 buffers, 4 are needed", memoryRemedy);
const char otherDriver[] = "use another camera, or another driver";
const std::string shortBuffers =
    text("the driver answers VIDIOC_QUERYBUF with a buffer of 100 bytes for a picture of 3456", otherDriver);
const std::string shortImage =
    text("the driver answers VIDIOC_S_FMT with 100 bytes for a picture of 3456", otherDriver);
const std::string shortLines =
    text("the driver answers VIDIOC_S_FMT with lines of 32 bytes for 64 pixels", otherDriver);
const std::string noSize = text("the driver answers VIDIOC_S_FMT with a size of 0 x 36", otherDriver);
const std::string giant = text("the driver answers VIDIOC_S_FMT with a size of 64 x 4000000000", otherDriver);
const std::string threePlanes = text("the driver answers VIDIOC_S_FMT with 3 planes for NM12", otherDriver);

INSTANTIATE_TEST_SUITE_P(
    All, Refusals,
    testing::Values(
        Refusal{"NoSuchDevice", [](fake::Kernel &k) { k.isPresent = false; }, ENOENT, noDevice.c_str()},
        Refusal{"NoPermission", [](fake::Kernel &k) { k.openError = EACCES; }, EACCES, forbidden.c_str()},
        Refusal{"Busy", [](fake::Kernel &k) { k.openError = EBUSY; }, EBUSY, openBusy.c_str()},
        Refusal{"NoVideoDevice", [](fake::Kernel &k) { k.driver.isVideo = false; }, ENOTTY, noVideo.c_str()},
        Refusal{"NoCaptureDevice", [](fake::Kernel &k) { k.driver.isCapture = false; }, ENOTTY,
                noCapture.c_str()},
        Refusal{"NoStreaming", [](fake::Kernel &k) { k.driver.capabilities = V4L2_CAP_READWRITE; }, ENOTSUP,
                readOnly.c_str()},
        Refusal{"FormatBusy",
                [](fake::Kernel &k) {
                    k.fault = {-1, VIDIOC_S_FMT, EBUSY, true};
                },
                EBUSY, formatBusy.c_str()},
        Refusal{"BuffersBusy",
                [](fake::Kernel &k) {
                    k.fault = {-1, VIDIOC_REQBUFS, EBUSY, true};
                },
                EBUSY, buffersBusy.c_str()},
        Refusal{"NoMemory",
                [](fake::Kernel &k) {
                    k.fault = {-1, VIDIOC_REQBUFS, ENOMEM, true};
                },
                ENOMEM, noMemory.c_str()},
        Refusal{"NoNv12",
                [](fake::Kernel &k) {
                    k.driver.formats = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YUV420};
                },
                EINVAL, noNv12.c_str()},
        Refusal{"NoNv12Multiplanar",
                [](fake::Kernel &k) {
                    k.driver.multiplanar = true;
                    k.driver.formats = {V4L2_PIX_FMT_YUV420M};
                },
                EINVAL, noNv12Multiplanar.c_str()},
        Refusal{"NothingOffered", [](fake::Kernel &k) { k.driver.formats = {}; }, EINVAL, nothing.c_str()},
        Refusal{"NoExport",
                [](fake::Kernel &k) {
                    k.fault = {-1, VIDIOC_EXPBUF, ENOTTY, true};
                },
                ENOTTY, noExport.c_str()},
        Refusal{"NoExportMultiplanar",
                [](fake::Kernel &k) {
                    k.driver.multiplanar = true;
                    k.fault = {-1, VIDIOC_EXPBUF, ENOTTY, true};
                },
                ENOTTY, noExport.c_str()},
        Refusal{"FewBuffers", [](fake::Kernel &k) { k.driver.mostBuffers = 3; }, ENOMEM, fewBuffers.c_str()},
        Refusal{"ShortBuffers", [](fake::Kernel &k) { k.driver.bufferLength = 100; }, EPROTO,
                shortBuffers.c_str()},
        Refusal{"ShortImage", [](fake::Kernel &k) { k.driver.sizeimage = 100; }, EPROTO, shortImage.c_str()},
        Refusal{"ShortLines", [](fake::Kernel &k) { k.driver.stride = 32; }, EPROTO, shortLines.c_str()},
        Refusal{"NoSize", [](fake::Kernel &k) { k.driver.width = 0; }, EPROTO, noSize.c_str()},
        Refusal{"GiantSize", [](fake::Kernel &k) { k.driver.height = 4000000000u; }, EPROTO, giant.c_str()},
        Refusal{"ThreePlanes",
                [](fake::Kernel &k) {
                    k.driver.multiplanar = true;
                    k.driver.formats = {V4L2_PIX_FMT_NV12M};
                    k.driver.planes = 3;
                },
                EPROTO, threePlanes.c_str()}),
    [](const testing::TestParamInfo<Refusal> &tested) { return std::string(tested.param.name); });

TEST(FourccText, isReadable)
{
    EXPECT_EQ(fourccText(V4L2_PIX_FMT_NV12), "NV12");
    EXPECT_EQ(fourccText(V4L2_PIX_FMT_Y16), "Y16");
    EXPECT_EQ(fourccText(V4L2_PIX_FMT_Y16_BE), "Y16-BE");
    EXPECT_EQ(fourccText(0x01020304), "????");
    EXPECT_EQ(fourccText(0), "????");
}
