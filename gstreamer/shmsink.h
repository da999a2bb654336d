#ifndef ZEVGST_SHMSINK_H
#define ZEVGST_SHMSINK_H

#include "storefeed.h"

#include <gst/base/gstbasesink.h>

#include <memory>

namespace zevgst {

// The element zevshmsink.
GType shmSinkType();

// What the sinks behind zevshmsink's pads count, together. Any thread.
struct SinkCounts;

// The sinks behind the pads, for zevshmsink only: made with the feed that they share.
GstElement *newVideoSink(std::shared_ptr<StoreFeed> feed, std::shared_ptr<SinkCounts> counts);
GstElement *newAudioSink(std::shared_ptr<StoreFeed> feed);

} // namespace zevgst

#endif
