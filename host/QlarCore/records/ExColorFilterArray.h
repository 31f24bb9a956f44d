#pragma once
#include <QtCore/qglobal.h>

// Mosaic pattern of a raw one-channel picture. The 2x2 patterns are named by
// their cells row by row starting top-left; the four Bayer phases map onto
// each other under 90 degree rotations.
enum ExColorFilterArray : quint32 {
    CFA_NONE = 0,
    CFA_BAYER_RGGB = 1,
    CFA_BAYER_GRBG = 2,
    CFA_BAYER_GBRG = 3,
    CFA_BAYER_BGGR = 4,
    CFA_CMYG = 5,       // cyan, magenta / yellow, green
    CFA_RGBR = 6,       // red, green / blue, red
    CFA_HSI_MOSAIC = 7  // layout in the picture's CxHsiCameraParams
};

constexpr bool isTwoByTwoMosaic(quint32 cfa) { return cfa >= CFA_BAYER_RGGB && cfa <= CFA_RGBR; }
