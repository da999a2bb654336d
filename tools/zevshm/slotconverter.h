// Puts decoded frames into slots of the store.
#ifndef ZEVSHM_SLOTCONVERTER_H
#define ZEVSHM_SLOTCONVERTER_H

#include "ffmpeg.h"
#include "turn.h"

#include <shm/shm_writer.h>

namespace zevshm {

// Writes a decoded frame straight into an acquired slot: size, pixel format and range in one pass, or a plain
// copy when nothing differs. That pass is the only time the pixels are touched between the decoder and the
// readers; a picture that has to be turned takes a second one.
//
// Decoding into the slot itself would save it, but is not safe: a decoder goes on reading its reference
// frames after they were handed out, while readers may write into a slot and the store takes it back for
// another frame.
//
// Threads: one at a time.
// Errors: Failure (ExitMedia) for a pixel format that swscale cannot read.
// Cost: one pass over the picture; nothing is allocated while the formats stay the same.
class SlotConverter
{
public:
    void convert(const AVFrame &frame, const shm_writer_frame_t &slot, int pixelFormat,
                 const shm_color_t &store, Turn turn = Turn::None);

private:
    struct Key
    {
        int sourceWidth, sourceHeight, sourceFormat;
        int width, height, format;
        shm_color_t source, store;
    };
    struct Target
    {
        uint8_t *planes[4];
        int strides[4];
        int width, height;
        AVPixelFormat format;
    };
    void prepare(const Key &key);
    void write(const AVFrame &frame, const Target &target, const shm_color_t &store);
    const Target &lyingTarget(int width, int height, AVPixelFormat format);

    AvPtr<SwsContext> m_scaler;
    Key m_key{};
    AvPtr<AVFrame> m_lying; // before it is turned; made when the first picture has to be
    Target m_lyingTarget{};
};

} // namespace zevshm

#endif
