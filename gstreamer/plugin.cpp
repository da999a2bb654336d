// The GStreamer plugin zevshm: zevshmsink publishes a frame store, zevshmsrc reads one.
#include "shmsink.h"
#include "shmsrc.h"

GST_DEBUG_CATEGORY(zevshm_debug);

namespace {

gboolean init(GstPlugin *plugin)
{
    GST_DEBUG_CATEGORY_INIT(zevshm_debug, "zevshm", 0, "frame store");
    return gst_element_register(plugin, "zevshmsink", GST_RANK_NONE, zevgst::shmSinkType()) &&
           gst_element_register(plugin, "zevshmsrc", GST_RANK_NONE, zevgst::shmSrcType());
}

} // namespace

#define PACKAGE "libzevqt-mm"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zevshm, "Live streams in shared memory", init,
                  ZEVGST_VERSION, "MIT/X11", "libzevqt-mm", "Unknown package origin")
