#ifndef ZEVQTMM_ZEVQTMMGLOBAL_H
#define ZEVQTMM_ZEVQTMMGLOBAL_H

#include <QtCore/qglobal.h>

/*! Seen outside of the library. */
#if defined(ZEVQTMM_BUILD)
#define ZEVQTMM_EXPORT Q_DECL_EXPORT
#else
#define ZEVQTMM_EXPORT Q_DECL_IMPORT
#endif

#endif
