// Color descriptions between FFmpeg and the store.
#ifndef ZEVSHM_COLOR_H
#define ZEVSHM_COLOR_H

#include <shm/shm_types.h>

struct AVFrame;

namespace zevshm {

// What a decoded frame says about its colors. Where it says nothing: BT.601 up to 576 lines and BT.709 above,
// limited range (full for RGB and JPEG), chroma sited left; the transfer stays unknown.
shm_color_t colorOf(const AVFrame &frame);

// Writes a store's colors into a frame, for an encoder; what is unknown stays unspecified.
void setColor(AVFrame &frame, const shm_color_t &color);

// BT.601 up to 576 lines, BT.709 above.
shm_matrix defaultMatrix(int height);

// The coefficients for sws_setColorspaceDetails.
const int *swsCoefficients(int matrix);

} // namespace zevshm

#endif
