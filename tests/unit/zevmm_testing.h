// A Stream over a driver in memory, with shorthands.
#ifndef ZEVMM_TESTING_H
#define ZEVMM_TESTING_H

#include "fake_v4l2.h"
#include "stream.h"

#include <gtest/gtest.h>

namespace zevmm {
namespace v4l2 {

class StreamTest : public testing::Test
{
protected:
    StreamTest() { fake::Egl::reset(); }
    ~StreamTest() override
    {
        stream.reset();
        EXPECT_EQ(kernel.openDescriptors.size(), 0u);
        EXPECT_TRUE(kernel.violations.empty()) << kernel.violations.front();
        EXPECT_EQ(fake::Egl::wrongDestructions(), 0);
    }

    void setUpImages()
    {
        stream->setup();
        stream->createImages(fake::Egl::display(), fake::Egl::create);
    }
    void begin()
    {
        setUpImages();
        stream->start();
    }
    void end()
    {
        stream->stop();
        stream->destroyImages(fake::Egl::display(), fake::Egl::destroy);
    }
    // What the capture thread would do: step when something is readable or it is time.
    void step(short events = 0) { stream->step(events); }
    void advance(std::int64_t microseconds, short events = 0)
    {
        kernel.clock += microseconds;
        stream->step(events);
    }
    bool fillAndStep()
    {
        const bool filled = kernel.fill();
        stream->step(filled ? POLLIN : short(0));
        return filled;
    }
    // The image that is delivered, null when none is.
    void *read()
    {
        void *delivered = nullptr;
        stream->readFrame([&](void *image) { delivered = image; });
        return delivered;
    }
    // Which buffer an image shows.
    unsigned int bufferOf(void *image)
    {
        const std::vector<int> attributes = fake::Egl::attributesOf(image);
        for (std::size_t i = 0; i + 1 < attributes.size(); i += 2) {
            if (attributes[i] == 0x3272)
                return kernel.bufferOfDmabuf.at(attributes[i + 1]);
        }
        ADD_FAILURE() << "no descriptor in the image";
        return 0;
    }
    // The number of the frame that an image shows now.
    std::uint32_t contentOf(void *image) { return kernel.contents.at(bufferOf(image)); }

    fake::Kernel kernel;
    int wakeUps = 0;
    std::unique_ptr<Stream> stream = std::make_unique<Stream>("/dev/video0", kernel, [this] { ++wakeUps; });
};

} // namespace v4l2
} // namespace zevmm

#endif
