#pragma once

namespace zevqml {

/*
 * Registers the types of the QML module ZevQt.Multimedia 1.0 under `uri`, which is that name. For the
 * module's plugin. GUI thread, once.
 */
void registerQmlTypes(const char *uri);

/*
 * The same for programs that link the items instead of loading the plugin: after it, the import finds the
 * types of this program, also where the plugin is installed. Before the first engine.
 */
void registerStaticQmlTypes();

} // namespace zevqml
