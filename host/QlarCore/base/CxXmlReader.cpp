#include "CxXmlReader.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QXmlStreamReader>
#include <QtXml/QDomDocument>

namespace {

QString tr(const char* text) { return QCoreApplication::translate("CxXmlReader", text); }

qint64 limitFromEnvironment(const char* name, qint64 fallback)
{
    bool ok = false;
    const qint64 value = qEnvironmentVariable(name).toLongLong(&ok);
    return ok && value > 0 ? value : fallback;
}

} // namespace

qint64 CxXmlReader::maxBytes() { return limitFromEnvironment("QLAR_XML_MAX_BYTES", DefaultMaxBytes); }

int CxXmlReader::maxDepth() { return int(qMin<qint64>(limitFromEnvironment("QLAR_XML_MAX_DEPTH", DefaultMaxDepth), 1 << 20)); }

QString CxXmlReader::tooLarge(qint64 bytes)
{
    return tr("the document has %1 bytes, more than the limit of %2 (QLAR_XML_MAX_BYTES raises it)")
        .arg(bytes)
        .arg(maxBytes());
}

bool CxXmlReader::parse(const QByteArray& text, QDomDocument& doc, QString* error)
{
    const auto refuse = [&](const QString& why) {
        if (error)
            *error = why;
        return false;
    };
    if (text.size() > maxBytes())
        return refuse(tooLarge(text.size()));
    const int depthLimit = maxDepth();
    QXmlStreamReader scan(text);
    int depth = 0;
    while (!scan.atEnd()) {
        const QXmlStreamReader::TokenType token = scan.readNext();
        if (token == QXmlStreamReader::StartElement && ++depth > depthLimit)
            return refuse(tr("line %1, column %2: elements nest deeper than the limit of %3 (QLAR_XML_MAX_DEPTH raises it)")
                              .arg(scan.lineNumber())
                              .arg(scan.columnNumber())
                              .arg(depthLimit));
        if (token == QXmlStreamReader::EndElement)
            --depth;
    }
    if (scan.hasError())
        return refuse(tr("line %1, column %2: %3").arg(scan.lineNumber()).arg(scan.columnNumber()).arg(scan.errorString()));
    QString message;
    int line = 0, column = 0;
    if (!doc.setContent(text, &message, &line, &column))
        return refuse(tr("line %1, column %2: %3").arg(line).arg(column).arg(message));
    return true;
}

bool CxXmlReader::parseFile(const QString& path, QDomDocument& doc, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    if (file.size() > maxBytes()) {
        if (error)
            *error = tooLarge(file.size());
        return false;
    }
    return parse(file.readAll(), doc, error);
}
