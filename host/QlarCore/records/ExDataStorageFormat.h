#pragma once
#include <QtCore/qglobal.h>

// How samples are arranged in memory.
//  DSF_PACKED (1): the default; channels interleaved pixel by pixel, mosaics
//                  stored as raw sensor samples.
//  DSF_PLANAR (2): one plane per channel (no node of this system emits it).
//  DSF_NOT_RAW (3): a finished picture; any colour filter array value it still
//                  carries is informative only, so nodes treat it as a plain
//                  picture and nodes that need raw mosaic data refuse it.
enum ExDataStorageFormat : quint32 {
    DSF_UNKNOWN = 0,
    DSF_PACKED = 1,
    DSF_PLANAR = 2,
    DSF_NOT_RAW = 3
};
