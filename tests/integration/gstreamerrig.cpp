// The program that the tests of the GStreamer elements are, and the process that plays one of their
// pipelines.
#include "gstreamerrig.h"

using namespace gstreamer_rig;

namespace {

int play(const char *description)
{
    const Pipeline pipeline(description);
    std::fprintf(stderr, "%s\n", pipeline.message(GST_MESSAGE_ERROR, 100).c_str());
    return 1;
}

// GStreamer with our plugin and those that the tests use: all that a machine has would take long to load, and
// leaks.
class Plugins
{
public:
    Plugins()
    {
        if (mkdtemp(m_folder.data()) == nullptr)
            std::abort();
        for (const auto &entry : std::filesystem::directory_iterator(ZEV_GST_SYSTEM_PLUGINS)) {
            const std::string name = entry.path().filename();
            for (const char *used : {"coreelements", "app", "videotestsrc", "audiotestsrc", "videoconvert"}) {
                if (name.rfind("libgst" + std::string(used), 0) == 0 && name.find(".so") != std::string::npos)
                    std::filesystem::create_symlink(entry.path(), m_folder + "/" + name);
            }
        }
        setenv("GST_PLUGIN_SYSTEM_PATH", m_folder.c_str(), 1);
        setenv("GST_PLUGIN_PATH", ZEV_GST_PLUGIN_PATH, 1);
        setenv("GST_REGISTRY", (m_folder + "/registry").c_str(), 1);
        setenv("GST_REGISTRY_FORK", "no", 1); // the scanner is not built with our sanitizers
    }
    ~Plugins()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

private:
    std::string m_folder = "/tmp/zev-gst-XXXXXX";
};

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--play") == 0) {
        gst_init(nullptr, nullptr);
        return play(argv[2]);
    }
    testing::InitGoogleTest(&argc, argv);
    const Plugins plugins;
    gst_init(&argc, &argv);
    const int result = RUN_ALL_TESTS();
    gst_deinit();
    return result;
}
