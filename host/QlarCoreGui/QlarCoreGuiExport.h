#pragma once
#include <QtCore/qglobal.h>

#if defined(QLARCOREGUI_LIBRARY)
#  define QLARCOREGUI_EXPORT Q_DECL_EXPORT
#else
#  define QLARCOREGUI_EXPORT Q_DECL_IMPORT
#endif
