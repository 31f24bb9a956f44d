#include "QlarCoreVersion.h"

void QlarCoreVersion(int& major, int& minor, int& patch)
{
    major = QLARCORE_VERSION_MAJOR;
    minor = QLARCORE_VERSION_MINOR;
    patch = QLARCORE_VERSION_PATCH;
}
