#pragma once
// Camera description files are read by the host library, which also keeps
// the same description in chain documents.
#include <SxCameraDescription.h>
