#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QString>

class QDomDocument;
class CxChainable;
struct SxCameraDescription;

// Chain documents: the saved form of a chain's nodes and their settings.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <QlarChain version="1">
//     <QlarCamera colorFilterArray="1" bitsPerSample="12"/>
//     <Chainable uniqueId="de.korvel.Vistrel.CxDeinterlaceCnbl" maxFps="0" transform="2"/>
//     ...
//   </QlarChain>
//
// The optional QlarCamera element, before the nodes, describes the input the
// chain ran on (SxCameraDescription: filter array, significant bits,
// hyperspectral layout), so that the chain replays on plain picture files
// with the same results. One Chainable element per node in chain order. "uniqueId" names the node
// class by its UniqueID; every other attribute is written by the node's
// saveSettings (the base class's own first) and read back by loadSettings.
// Loading fails as a whole, with a message naming the line, on malformed XML,
// a wrong root element, an unknown UniqueID or a malformed input
// description; nodes made before the failure are deleted.
class QLARCORE_EXPORT CxChainDocument
{
public:
    static const char* const RootElement;
    static const char* const NodeElement;
    static const char* const UniqueIdAttribute;

    // input may be null (or empty): the document then describes no input.
    static QDomDocument save(const QList<CxChainable*>& nodes, const SxCameraDescription* input = nullptr);
    static QString saveToString(const QList<CxChainable*>& nodes, const SxCameraDescription* input = nullptr);
    // Written through a temporary file: a failure leaves any earlier
    // document of that name as it was.
    static bool saveToFile(const QList<CxChainable*>& nodes, const QString& path, QString* error,
                           const SxCameraDescription* input = nullptr);

    // The caller owns the nodes. An empty list with *error set on failure
    // (an empty chain is not an error). input, when given, receives the
    // document's input description (empty when it has none).
    static QList<CxChainable*> load(const QDomDocument& doc, QString* error, SxCameraDescription* input = nullptr);
    static QList<CxChainable*> loadFromString(const QString& xml, QString* error,
                                              SxCameraDescription* input = nullptr);
    static QList<CxChainable*> loadFromFile(const QString& path, QString* error,
                                            SxCameraDescription* input = nullptr);
};
