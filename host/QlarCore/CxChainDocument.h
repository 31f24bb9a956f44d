#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QString>

class QDomDocument;
class CxChainable;

// Chain documents: the saved form of a chain's nodes and their settings.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <QlarChain version="1">
//     <Chainable uniqueId="de.korvel.Vistrel.CxDeinterlaceCnbl" maxFps="0" transform="2"/>
//     ...
//   </QlarChain>
//
// One Chainable element per node in chain order. "uniqueId" names the node
// class by its UniqueID; every other attribute is written by the node's
// saveSettings (the base class's own first) and read back by loadSettings.
// Loading fails as a whole, with a message naming the line, on malformed XML,
// a wrong root element or an unknown UniqueID; nodes made before the failure
// are deleted.
class QLARCORE_EXPORT CxChainDocument
{
public:
    static const char* const RootElement;
    static const char* const NodeElement;
    static const char* const UniqueIdAttribute;

    static QDomDocument save(const QList<CxChainable*>& nodes);
    static QString saveToString(const QList<CxChainable*>& nodes);
    static bool saveToFile(const QList<CxChainable*>& nodes, const QString& path, QString* error);

    // The caller owns the nodes. An empty list with *error set on failure
    // (an empty chain is not an error).
    static QList<CxChainable*> load(const QDomDocument& doc, QString* error);
    static QList<CxChainable*> loadFromString(const QString& xml, QString* error);
    static QList<CxChainable*> loadFromFile(const QString& path, QString* error);
};
