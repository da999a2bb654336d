#include "audio/newobjects.h"

#include <atomic>

#include <dlfcn.h>

namespace {

using Callback = void (*)(QObject *);

// Of qtHookData, an array of pointer-sized integers.
enum HookIndex { Version, Size, QtVersion, AddQObject };

thread_local NewObjects *collecting = nullptr;
std::atomic<Callback> installedBefore{nullptr};
std::atomic<bool> isInstalled{false}; // also below a hook that came later, which calls ours

quintptr *hooks()
{
    auto *data = static_cast<quintptr *>(dlsym(RTLD_DEFAULT, "qtHookData"));
    const bool isKnown = data && data[Version] >= 1 && data[Size] > AddQObject && data[QtVersion] >> 16 == 5;
    return isKnown ? data : nullptr;
}

} // namespace

struct NewObjectsHook
{
    static void onObject(QObject *object)
    {
        if (collecting)
            collecting->objects.append(object); // its class is not known before its constructor has ended
        if (const Callback before = installedBefore)
            before(object);
    }
};

NewObjects::NewObjects()
{
    quintptr *data = hooks();
    if (!data)
        return;
    collecting = this;
    const auto hook = reinterpret_cast<quintptr>(&NewObjectsHook::onObject);
    if (isInstalled.exchange(true))
        return;
    installedBefore = reinterpret_cast<Callback>(data[AddQObject]);
    data[AddQObject] = hook;
}

NewObjects::~NewObjects()
{
    collecting = nullptr;
    quintptr *data = hooks();
    if (!data || data[AddQObject] != reinterpret_cast<quintptr>(&NewObjectsHook::onObject))
        return;
    data[AddQObject] = reinterpret_cast<quintptr>(installedBefore.load());
    isInstalled = false;
}

QObject *NewObjects::find(const char *className) const
{
    for (const QPointer<QObject> &object : objects) {
        if (object && object->inherits(className))
            return object;
    }
    return nullptr;
}
