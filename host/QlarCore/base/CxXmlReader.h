#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

class QDomDocument;

// Reads the XML we take from outside (chain documents, camera descriptions,
// the description inside our TIFFs) with limits checked before the DOM is
// built: a streaming pass refuses a text that is too large, nests too deep or
// is malformed, in time linear in its length. QDomDocument alone takes
// minutes over a few hundred kilobytes of deeply nested, unclosed elements.
// The limits are generous for any document we write; the environment
// variables QLAR_XML_MAX_BYTES and QLAR_XML_MAX_DEPTH raise them, and the
// refusal says so.
class QLARCORE_EXPORT CxXmlReader
{
public:
    static constexpr qint64 DefaultMaxBytes = qint64(16) << 20;
    static constexpr int DefaultMaxDepth = 64;

    // False with "line L, column C: what" (or which limit) when refused.
    static bool parse(const QByteArray& text, QDomDocument& doc, QString* error);
    // The same for a file; the error does not repeat the path.
    static bool parseFile(const QString& path, QDomDocument& doc, QString* error);

    static qint64 maxBytes();
    static int maxDepth();
    // The refusal of a document of that many bytes.
    static QString tooLarge(qint64 bytes);
};
