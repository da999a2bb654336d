// What is told of each capture device.
#include "cameralist.h"
#include "fake_v4l2.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <system_error>

using namespace zevmm::v4l2;

namespace {

// A driver that tells its sizes and rates.
class Listing : public fake::Kernel
{
public:
    int ioctl(int fd, unsigned long request, void *argument) override
    {
        if (request == VIDIOC_ENUM_FRAMESIZES) {
            auto *entry = static_cast<v4l2_frmsizeenum *>(argument);
            if (isStepwise && entry->index == 0) {
                entry->type = V4L2_FRMSIZE_TYPE_STEPWISE;
                entry->stepwise = {16, 1920, 2, 16, 1080, 2};
                return 0;
            }
            if (isStepwise || entry->index > 1)
                return -EINVAL;
            entry->type = V4L2_FRMSIZE_TYPE_DISCRETE;
            entry->discrete = {640u << entry->index, 360u << entry->index};
            return 0;
        }
        if (request == VIDIOC_ENUM_FRAMEINTERVALS) {
            auto *entry = static_cast<v4l2_frmivalenum *>(argument);
            if (isStepwise || entry->index > 1)
                return -EINVAL;
            entry->type = V4L2_FRMIVAL_TYPE_DISCRETE;
            entry->discrete = {1, entry->index == 0 ? 30u : 15u};
            return 0;
        }
        return Kernel::ioctl(fd, request, argument);
    }
    bool isStepwise = false;
};

} // namespace

TEST(Cameras, tellsNameFormatsSizesAndRates)
{
    Listing kernel;
    Camera camera;
    ASSERT_TRUE(describeCamera(kernel, "/dev/video0", &camera));
    EXPECT_EQ(camera.device, "/dev/video0");
    EXPECT_EQ(camera.name, "Fake camera");
    EXPECT_EQ(camera.problem, "");
    ASSERT_EQ(camera.formats.size(), 2u);
    EXPECT_EQ(camera.formats[1].code, "NV12");
    ASSERT_EQ(camera.formats[1].sizes.size(), 2u);
    EXPECT_EQ(camera.formats[1].sizes[1].width, 1280u);
    EXPECT_EQ(camera.formats[1].sizes[1].height, 720u);
    EXPECT_EQ(camera.formats[1].sizes[1].rates, (std::vector<double>{30, 15}));
    EXPECT_TRUE(kernel.openDescriptors.empty());
}

TEST(Cameras, listsARangeAsItsEnds)
{
    Listing kernel;
    kernel.isStepwise = true;
    Camera camera;
    ASSERT_TRUE(describeCamera(kernel, "/dev/video0", &camera));
    ASSERT_EQ(camera.formats[0].sizes.size(), 2u);
    EXPECT_EQ(camera.formats[0].sizes[0].width, 16u);
    EXPECT_EQ(camera.formats[0].sizes[1].height, 1080u);
    EXPECT_TRUE(camera.formats[0].sizes[0].rates.empty());
}

TEST(Cameras, saysWhyOneCannotBeShown)
{
    fake::Kernel kernel;
    Camera camera;
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV,
                             V4L2_PIX_FMT_NV12M}; // two descriptors are for the other flavour
    ASSERT_TRUE(describeCamera(kernel, "/dev/video0", &camera));
    EXPECT_EQ(camera.problem,
              "/dev/video0: the camera offers no NV12; publish it into a store, which converts "
              "(`zevshm publish NAME v4l2:/dev/video0`), and show that");
    kernel.driver.multiplanar = true;
    ASSERT_TRUE(describeCamera(kernel, "/dev/video0", &camera));
    EXPECT_EQ(camera.problem, "");
    kernel.openError = EACCES;
    ASSERT_TRUE(describeCamera(kernel, "/dev/video0", &camera));
    EXPECT_EQ(camera.problem.find("/dev/video0: open failed: Permission denied; join the group"), 0u);
    EXPECT_TRUE(camera.formats.empty());
}

TEST(Cameras, leavesOutWhatIsNone)
{
    fake::Kernel kernel;
    Camera camera;
    kernel.driver.isCapture = false;
    EXPECT_FALSE(describeCamera(kernel, "/dev/video0", &camera));
    kernel.driver.isVideo = false;
    EXPECT_FALSE(describeCamera(kernel, "/dev/video0", &camera));
    EXPECT_FALSE(describeCamera(kernel, "/dev/video1", &camera)); // gone since the folder was read
    EXPECT_TRUE(kernel.openDescriptors.empty());
}

TEST(Cameras, tellsHowTheSamplesOfAnyFormatAreToBeRead)
{
    fake::Kernel kernel;
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV};
    CameraState state = stateOfCamera(kernel, "/dev/video0");
    EXPECT_FALSE(state.multiplanar);
    EXPECT_EQ(state.encoding, ColorEncoding::Bt601);
    EXPECT_FALSE(state.fullRange);
    for (const bool multiplanar : {false, true}) {
        kernel.driver.multiplanar = multiplanar;
        kernel.driver.colorspace = V4L2_COLORSPACE_REC709;
        kernel.driver.quantization = V4L2_QUANTIZATION_FULL_RANGE;
        state = stateOfCamera(kernel, "/dev/video0");
        EXPECT_EQ(state.multiplanar, multiplanar);
        EXPECT_EQ(state.encoding, ColorEncoding::Bt709);
        EXPECT_TRUE(state.fullRange);
    }
    EXPECT_EQ(kernel.callsOf.count(VIDIOC_S_FMT), 0u);
    EXPECT_TRUE(kernel.openDescriptors.empty());
}

TEST(Cameras, saysWhyAStateCannotBeTold)
{
    fake::Kernel kernel;
    const auto refusal = [&kernel](int code) {
        try {
            stateOfCamera(kernel, "/dev/video0");
        } catch (const std::system_error &error) {
            EXPECT_EQ(error.code().value(), code);
            return std::string(error.what());
        }
        return std::string();
    };
    kernel.fault = {-1, VIDIOC_G_FMT, EIO, false};
    EXPECT_EQ(refusal(EIO).find("/dev/video0: VIDIOC_G_FMT failed: Input/output error; check cable"), 0u);
    kernel.driver.isCapture = false;
    EXPECT_EQ(refusal(ENOTTY).find("/dev/video0: this is not a capture device"), 0u);
    kernel.openError = EACCES;
    EXPECT_EQ(refusal(EACCES).find("/dev/video0: open failed: Permission denied"), 0u);
    EXPECT_TRUE(kernel.openDescriptors.empty());
}

TEST(Cameras, listsThoseOfThisMachine)
{
    for (const Camera &camera : listCameras()) {
        EXPECT_EQ(camera.device.rfind("/dev/video", 0), 0u);
        EXPECT_TRUE(!camera.name.empty() || !camera.problem.empty());
    }
}
