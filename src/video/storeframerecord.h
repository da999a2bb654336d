#ifndef ZEVQTMM_STOREFRAMERECORD_H
#define ZEVQTMM_STOREFRAMERECORD_H

#include <zevqt-mm/storeframe.h>

#include <shm/shm_reader.h>

/*! What the store's record of a locked frame says, in an application's terms. */
StoreFrame storeFrameFromRecord(const shm_video_frame_t &record);

#endif
