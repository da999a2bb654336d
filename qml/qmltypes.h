#pragma once

namespace zevqml {

/*
 * Registers the QML types of the module ZevQt.Multimedia 1.0 under `uri`. For the module's plugin, and for
 * programs that link the items instead of loading it (they pass "ZevQt.Multimedia"). GUI thread, once.
 */
void registerQmlTypes(const char *uri);

} // namespace zevqml
