#include <zevqt-mm/mediasourcebase.h>

MediaSourceBase::MediaSourceBase(QObject *parent) : QObject(parent) {}

MediaSourceBase::~MediaSourceBase() = default;

void MediaSourceBase::doBeforeGLSynchronizing() {}

void MediaSourceBase::doAfterGLSynchronizing() {}

void MediaSourceBase::releaseGLResources() {}
