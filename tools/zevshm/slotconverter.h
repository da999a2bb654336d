// Puts decoded frames into slots of the store.
#ifndef ZEVSHM_SLOTCONVERTER_H
#define ZEVSHM_SLOTCONVERTER_H

#include "ffmpeg.h"

#include <shm/shm_writer.h>

namespace zevshm {

// Writes a decoded frame straight into an acquired slot: size, pixel format and range in one pass, or a plain
// copy when nothing differs. That pass is the only time the pixels are touched between the decoder and the
// readers.
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
                 const shm_color_t &store);

private:
    struct Key
    {
        int sourceWidth, sourceHeight, sourceFormat;
        int width, height, format;
        shm_color_t source, store;
    };
    void prepare(const Key &key);

    AvPtr<SwsContext> m_scaler;
    Key m_key{};
};

} // namespace zevshm

#endif
