#include "qmltypes.h"

#include <QQmlExtensionPlugin>

/* Brings the types to `import ZevQt.Multimedia 1.0`. */
class ZevQtMultimediaPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override { zevqml::registerQmlTypes(uri); }
};

#include "plugin.moc"
