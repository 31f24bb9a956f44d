#pragma once
#include "QlarCoreExport.h"

// Version of the host core library the caller runs with.
QLARCORE_EXPORT void QlarCoreVersion(int& major, int& minor, int& patch);
