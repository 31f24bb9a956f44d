#pragma once
// Symbol visibility of libQlarCore. The library is built with hidden
// visibility so that only the host contract is exported to plug-ins.
#include <QtCore/qglobal.h>

#if defined(QLARCORE_LIBRARY)
#  define QLARCORE_EXPORT Q_DECL_EXPORT
#else
#  define QLARCORE_EXPORT Q_DECL_IMPORT
#endif
