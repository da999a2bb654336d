#include "qmltypes.h"

#include <QtCore/qglobal.h>

// Outside of all namespaces, as it has to be.
static void initResources()
{
    Q_INIT_RESOURCE(staticmodule);
}

namespace zevqml {

void registerStaticQmlTypes()
{
    initResources();
    registerQmlTypes("ZevQt.Multimedia");
}

} // namespace zevqml
