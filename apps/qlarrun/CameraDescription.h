#pragma once
#include <CxHsiCameraParams.h>
#include <ExColorFilterArray.h>

#include <QtCore/QString>

// A camera description file: what raw frames and other picture files do not
// say about the sensor that took them.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <QlarCamera colorFilterArray="7" bitsPerSample="12">
//     <HsiCameraParams version="1"> ... </HsiCameraParams>
//   </QlarCamera>
//
// Every part is optional. colorFilterArray is 0 to 7 and bitsPerSample 1 to
// 32; the HsiCameraParams element is the saved form of CxHsiCameraParams.
// A description with bands and no filter array means filter array 7, and
// filter array 7 needs a valid description. A file whose root is a bare
// HsiCameraParams element is read the same way.
struct SxCameraDescription
{
    static const char* const RootElement;        // "QlarCamera"
    static const char* const CfaAttribute;       // "colorFilterArray"
    static const char* const BitsAttribute;      // "bitsPerSample"

    bool hasColorFilterArray = false;
    ExColorFilterArray colorFilterArray = CFA_NONE;
    quint32 bitsPerSample = 0;  // 0: not described
    CxHsiCameraParams hsi;

    // On failure the description is left empty and error names the file and,
    // where it can, the line.
    bool loadFromFile(const QString& path, QString* error);
};
