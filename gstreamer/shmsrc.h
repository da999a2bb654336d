#ifndef ZEVGST_SHMSRC_H
#define ZEVGST_SHMSRC_H

#include <gst/gst.h>

namespace zevgst {

// The element zevshmsrc.
GType shmSrcType();

} // namespace zevgst

#endif
