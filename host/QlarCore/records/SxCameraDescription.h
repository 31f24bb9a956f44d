#pragma once
#include "QlarCoreExport.h"
#include "CxHsiCameraParams.h"
#include "CxImageMetadata.h"
#include "ExColorFilterArray.h"
#include "SxPicBufInfo.h"

#include <QtCore/QString>

class QDomDocument;
class QDomElement;

// What a picture file does not say about the sensor that took it: the
// filter array, the significant bits and the hyperspectral layout. It is the
// content of a camera description file and of the input element of a chain
// document, so that a document saved by one program replays in another on
// plain files with the same results.
//
//   <QlarCamera colorFilterArray="7" bitsPerSample="12">
//     <HsiCameraParams version="1"> ... </HsiCameraParams>
//   </QlarCamera>
//
// Every part is optional. colorFilterArray is 0 to 7 and bitsPerSample 1 to
// 32; the HsiCameraParams element is the saved form of CxHsiCameraParams.
// A description with bands and no filter array means filter array 7, and
// filter array 7 needs a valid description. A file whose root is a bare
// HsiCameraParams element is read the same way.
struct QLARCORE_EXPORT SxCameraDescription
{
    static const char* const RootElement;        // "QlarCamera"
    static const char* const CfaAttribute;       // "colorFilterArray"
    static const char* const BitsAttribute;      // "bitsPerSample"

    bool hasColorFilterArray = false;
    ExColorFilterArray colorFilterArray = CFA_NONE;
    quint32 bitsPerSample = 0;  // 0: not described
    CxHsiCameraParams hsi;

    // What a picture of this format and description says about its sensor:
    // its filter array (0 included), significant bits and, for filter array
    // 7, the hyperspectral layout. A chain saved with it replays on files.
    static SxCameraDescription fromFormat(const SxPicBufInfo& format, const CxImageMetadata& meta);

    bool isEmpty() const { return !hasColorFilterArray && bitsPerSample == 0 && hsi.isEmpty(); }
    // The parts that over describes replace this description's.
    void overlay(const SxCameraDescription& over);

    // element is a QlarCamera (or bare HsiCameraParams) element. On failure
    // the description is left empty and error names the line.
    bool loadFromElement(const QDomElement& element, QString* error);
    // Appends a QlarCamera element to parent.
    void saveToElement(QDomDocument& doc, QDomElement& parent) const;
    // On failure error names the file and, where it can, the line.
    bool loadFromFile(const QString& path, QString* error);
};
