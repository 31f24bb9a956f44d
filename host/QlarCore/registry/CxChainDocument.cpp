#include "CxChainDocument.h"
#include "CxAtomicFile.h"
#include "CxChainable.h"
#include "CxRTTI.h"
#include "CxXmlReader.h"
#include "SxCameraDescription.h"

#include <QtCore/QFile>
#include <QtXml/QDomDocument>

#include <memory>

const char* const CxChainDocument::RootElement = "QlarChain";
const char* const CxChainDocument::NodeElement = "Chainable";
const char* const CxChainDocument::UniqueIdAttribute = "uniqueId";

QDomDocument CxChainDocument::save(const QList<CxChainable*>& nodes, const SxCameraDescription* input)
{
    QDomDocument doc;
    doc.appendChild(doc.createProcessingInstruction(QStringLiteral("xml"),
                                                    QStringLiteral("version=\"1.0\" encoding=\"UTF-8\"")));
    QDomElement root = doc.createElement(QString::fromLatin1(RootElement));
    root.setAttribute(QStringLiteral("version"), 1);
    doc.appendChild(root);
    if (input && !input->isEmpty())
        input->saveToElement(doc, root);
    for (CxChainable* node : nodes) {
        if (!node)
            continue;
        QDomElement e = doc.createElement(QString::fromLatin1(NodeElement));
        e.setAttribute(QString::fromLatin1(UniqueIdAttribute),
                       CxRTTI::classInfo(*node->metaObject(), "UniqueID"));
        node->saveSettings(doc, e);
        root.appendChild(e);
    }
    return doc;
}

QString CxChainDocument::saveToString(const QList<CxChainable*>& nodes, const SxCameraDescription* input)
{
    return save(nodes, input).toString(2);
}

bool CxChainDocument::saveToFile(const QList<CxChainable*>& nodes, const QString& path, QString* error,
                                 const SxCameraDescription* input)
{
    QString reason;
    if (CxAtomicFile::write(path, saveToString(nodes, input).toUtf8(), &reason))
        return true;
    if (error)
        *error = QStringLiteral("%1: %2").arg(path, reason);
    return false;
}

namespace {

// Which attribute a node's loadSettings would not take, found by trying
// them on fresh nodes: each of the document's attributes alone over the
// node's own defaults (a value it cannot read), then each default the
// document lacks added to it (an attribute it needs). Empty when neither
// explains it.
QString refusedAttribute(const QString& uid, const QDomElement& given)
{
    const auto loads = [&](const QDomElement& e) {
        std::unique_ptr<CxChainable> probe(CxRTTI::instance()->createChainableByUniqueId(uid));
        return probe && probe->loadSettings(e);
    };
    QDomDocument scratch;
    QDomElement defaults = scratch.createElement(given.tagName());
    {
        std::unique_ptr<CxChainable> fresh(CxRTTI::instance()->createChainableByUniqueId(uid));
        if (!fresh)
            return QString();
        fresh->saveSettings(scratch, defaults);
    }
    const QDomNamedNodeMap attributes = given.attributes();
    for (int i = 0; i < attributes.count(); ++i) {
        const QDomAttr a = attributes.item(i).toAttr();
        QDomElement trial = defaults.cloneNode().toElement();
        trial.setAttribute(a.name(), a.value());
        if (!loads(trial))
            return QStringLiteral(": it cannot take %1=\"%2\"").arg(a.name(), a.value());
    }
    const QDomNamedNodeMap own = defaults.attributes();
    for (int i = 0; i < own.count(); ++i) {
        const QDomAttr a = own.item(i).toAttr();
        if (given.hasAttribute(a.name()))
            continue;
        QDomElement trial = given.cloneNode().toElement();
        trial.setAttribute(a.name(), a.value());
        if (loads(trial))
            return QStringLiteral(": it needs the attribute %1").arg(a.name());
    }
    return QString();
}

} // namespace

QList<CxChainable*> CxChainDocument::load(const QDomDocument& doc, QString* error, SxCameraDescription* input)
{
    QList<CxChainable*> nodes;
    SxCameraDescription described;
    bool seenInput = false;
    auto fail = [&](const QString& msg) {
        qDeleteAll(nodes);
        nodes.clear();
        if (input)
            *input = SxCameraDescription();
        if (error)
            *error = msg;
        return nodes;
    };
    const QDomElement root = doc.documentElement();
    if (root.tagName() != QLatin1String(RootElement))
        return fail(QStringLiteral("not a chain document (root element is <%1>, expected <%2>)")
                        .arg(root.tagName(), QLatin1String(RootElement)));
    for (QDomElement e = root.firstChildElement(); !e.isNull(); e = e.nextSiblingElement()) {
        if (e.tagName() == QLatin1String(SxCameraDescription::RootElement)) {
            QString why;
            if (seenInput || !nodes.isEmpty())
                return fail(QStringLiteral("line %1: the input description must come once, before the nodes")
                                .arg(e.lineNumber()));
            if (!described.loadFromElement(e, &why))
                return fail(why);
            seenInput = true;
            continue;
        }
        if (e.tagName() != QLatin1String(NodeElement))
            return fail(QStringLiteral("line %1: unexpected element <%2>").arg(e.lineNumber()).arg(e.tagName()));
        const QString uid = e.attribute(QString::fromLatin1(UniqueIdAttribute));
        if (uid.isEmpty())
            return fail(QStringLiteral("line %1: node without a %2 attribute")
                            .arg(e.lineNumber()).arg(QLatin1String(UniqueIdAttribute)));
        CxChainable* node = CxRTTI::instance()->createChainableByUniqueId(uid);
        if (!node)
            return fail(QStringLiteral("line %1: unknown node \"%2\"").arg(e.lineNumber()).arg(uid));
        nodes.append(node);
        if (!node->loadSettings(e))
            return fail(QStringLiteral("line %1: node \"%2\" did not accept its settings%3")
                            .arg(e.lineNumber())
                            .arg(uid, refusedAttribute(uid, e)));
    }
    if (error)
        error->clear();
    if (input)
        *input = described;
    return nodes;
}

QList<CxChainable*> CxChainDocument::loadFromString(const QString& xml, QString* error, SxCameraDescription* input)
{
    QDomDocument doc;
    if (!CxXmlReader::parse(xml.toUtf8(), doc, error))
        return {};
    return load(doc, error, input);
}

QList<CxChainable*> CxChainDocument::loadFromFile(const QString& path, QString* error, SxCameraDescription* input)
{
    QDomDocument doc;
    QString msg;
    if (!CxXmlReader::parseFile(path, doc, &msg)) {
        if (error)
            *error = QStringLiteral("%1: %2").arg(path, msg);
        return {};
    }
    QString why;
    QList<CxChainable*> nodes = load(doc, &why, input);
    if (!why.isEmpty() && error)
        *error = QStringLiteral("%1: %2").arg(path, why);
    else if (error)
        error->clear();
    return nodes;
}
